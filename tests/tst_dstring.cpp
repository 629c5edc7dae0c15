#include "audio/DString.h"

#include <QtTest>

#include <cstring>

namespace {

DString* make(const char* text)
{
    DString* s = new DString;
    s->strSet(text, -1);
    return s;
}

int indexIn(const DString& s, const char* p)
{
    return p ? int(p - s.text()) : -1;
}

} // namespace

class DStringTest : public QObject
{
    Q_OBJECT

private slots:
    void emptyOwnsNothing();
    void findCharOccurrences();
    void insertPositions();
    void setCharAndIndex();
    void insertCharInFront();
    void removeWhiteSpace();
    void printfLosesLastCharacterWhenGrowing();
    void printfWithinRoom();
    void printfReadsArgumentsTwice();
    void strSetAndStrCatGrowExactly();
    void setAllocLenKeepsWhatFits();
    void replaceRange();
    void replaceBySearch();
    void replaceCreatesMissingEndDelimiter();
    void extractBySearch();
};

void DStringTest::emptyOwnsNothing()
{
    DString empty;
    QCOMPARE(empty.allocLen(), 0);
    QCOMPARE(empty.text(), "");
    DString sized(10);
    QCOMPARE(sized.allocLen(), 10);
    QCOMPARE(sized.text(), "");
    DString replaced;
    replaced.replace("x", nullptr, nullptr);
    QCOMPARE(replaced.text(), "x");
    QCOMPARE(replaced.allocLen(), 1);
}

void DStringTest::findCharOccurrences()
{
    QScopedPointer<DString> s(make("banana"));
    QCOMPARE(indexIn(*s, s->findChar(1, 'a')), 1);
    QCOMPARE(indexIn(*s, s->findChar(3, 'a')), 1);
    QCOMPARE(indexIn(*s, s->findChar(127, 'a')), 1);
    QCOMPARE(indexIn(*s, s->findChar(254, 'a')), 5);
    QCOMPARE(indexIn(*s, s->findChar(253, 'a')), 3);
    QCOMPARE(indexIn(*s, s->findChar(252, 'a')), 1);
    QCOMPARE(indexIn(*s, s->findChar(251, 'a')), -1);
    QCOMPARE(indexIn(*s, s->findChar(255, 'a')), 6);
    QCOMPARE(*s->findChar(255, 'a'), '\0');
    QVERIFY(s->findChar(0, 'a') == nullptr);
    QVERIFY(s->findChar(1, 'z') == nullptr);
    QCOMPARE(indexIn(*s, s->findChar(0x100 | 254, 'n')), 4); // flag bits do not change the search
}

void DStringTest::insertPositions()
{
    QScopedPointer<DString> s(make("banana"));
    s->insert("x", 6);
    QCOMPARE(s->text(), "banana");
    s->insert("x", -7);
    QCOMPARE(s->text(), "banana");
    s->insert("x", -1);
    QCOMPARE(s->text(), "bananxa");
    s->insert("YZ", 0);
    QCOMPARE(s->text(), "YZbananxa");
    QCOMPARE(s->allocLen(), 9);
}

void DStringTest::setCharAndIndex()
{
    QScopedPointer<DString> s(make("abc"));
    QVERIFY(s->setChar('X', -1));
    QCOMPARE(s->text(), "abX");
    QVERIFY(s->setChar('Y', 0));
    QCOMPARE(s->text(), "YbX");
    QVERIFY(!s->setChar('Z', 3));
    QVERIFY(!s->setChar('Z', -4));
    QCOMPARE(s->text(), "YbX");
    QCOMPARE((*s)[-2], 'b');
    QCOMPARE((*s)[3], '\0');
    QCOMPARE((*s)[-4], '\0');
    DString empty;
    QVERIFY(!empty.setChar('A', 0));
    QCOMPARE(empty[0], '\0');
}

void DStringTest::insertCharInFront()
{
    QScopedPointer<DString> s(make("7"));
    s->insertChar('0', 3);
    QCOMPARE(s->text(), "0007");
    QCOMPARE(s->allocLen(), 4);
    s->insertChar('0', 0);
    QCOMPARE(s->text(), "0007");
    DString empty;
    empty.insertChar('-', 2);
    QCOMPARE(empty.text(), "--");
}

void DStringTest::removeWhiteSpace()
{
    QScopedPointer<DString> s(make(" a b\tc "));
    s->removeWhiteSpace();
    QCOMPARE(s->text(), "abc");
    QScopedPointer<DString> all(make("\n1\v2\f3\r4 \t"));
    all->removeWhiteSpace();
    QCOMPARE(all->text(), "1234");
}

void DStringTest::printfLosesLastCharacterWhenGrowing()
{
    DString key;
    QCOMPARE(key.printf("sTRK%u=", 3u), 6);
    QCOMPARE(key.text(), "sTRK3");
    QCOMPARE(key.allocLen(), 6);

    DString number;
    QCOMPARE(number.appendPrintf("%d", 12), 2);
    QCOMPARE(number.text(), "1");

    QScopedPointer<DString> s(make("ab"));
    QCOMPARE(s->appendPrintf("%d", 345), 3);
    QCOMPARE(s->text(), "ab34"); // grew to exactly 2 + 3
    QCOMPARE(s->allocLen(), 5);
}

void DStringTest::printfWithinRoom()
{
    DString s(10);
    QCOMPARE(s.printf("%d-%s", 12, "x"), 4);
    QCOMPARE(s.text(), "12-x");
    QCOMPARE(s.appendPrintf("%c%c", 'y', 'z'), 2);
    QCOMPARE(s.text(), "12-xyz");
    QCOMPARE(s.allocLen(), 10);
    // Filling the room exactly also loses the last character.
    DString exact(3);
    QCOMPARE(exact.printf("abc"), 3);
    QCOMPARE(exact.text(), "ab");
    QCOMPARE(exact.allocLen(), 3);
    // Set mode formats from the start of the text.
    QCOMPARE(s.printf("%s", "q"), 1);
    QCOMPARE(s.text(), "q");
}

void DStringTest::printfReadsArgumentsTwice()
{
    DString s;
    QCOMPARE(s.printf("%s-%s-%d", "alpha", "beta", 42), 13);
    QCOMPARE(s.text(), "alpha-beta-4");
    DString longer(4);
    QCOMPARE(longer.appendPrintf("%s/%s", "abc", "defgh"), 9);
    QCOMPARE(longer.text(), "abc/defg");
}

void DStringTest::strSetAndStrCatGrowExactly()
{
    DString s;
    s.strSet("abcdef", 3);
    QCOMPARE(s.text(), "abc");
    QCOMPARE(s.allocLen(), 3);
    s.strCat("de");
    QCOMPARE(s.text(), "abcde");
    QCOMPARE(s.allocLen(), 5);
    s.strCat(nullptr);
    QCOMPARE(s.text(), "abcde");
    s.strSet(nullptr, 4);
    QCOMPARE(s.text(), "");
    QCOMPARE(s.allocLen(), 5);
    s.strCat("xy"); // an empty text is set, not appended to
    QCOMPARE(s.text(), "xy");
    QCOMPARE(s.allocLen(), 5);
}

void DStringTest::setAllocLenKeepsWhatFits()
{
    QScopedPointer<DString> s(make("abcdef"));
    QVERIFY(s->setAllocLen(3));
    QCOMPARE(s->text(), "abc");
    QCOMPARE(s->allocLen(), 3);
    QVERIFY(s->setAllocLen(8));
    QCOMPARE(s->text(), "abc");
    QCOMPARE(s->allocLen(), 8);
    QVERIFY(s->setAllocLen(0));
    QCOMPARE(s->text(), "");
    QCOMPARE(s->allocLen(), 0);
}

void DStringTest::replaceRange()
{
    QScopedPointer<DString> s(make("banana"));
    s->replace("XYZ", s->text() + 1, s->text() + 3);
    QCOMPARE(s->text(), "bXYZana");
    QCOMPARE(s->allocLen(), 7);
    s->replace("", s->text() + 1, s->text() + 4);
    QCOMPARE(s->text(), "bana");
    s->replace("-", s->text() + 2, nullptr);
    QCOMPARE(s->text(), "ba-");
    s->replace("Q", s->text() + 2, s->text() + 1);
    QCOMPARE(s->text(), "ba-");
    s->replace("long tail", s->text() + 3, s->text() + 3);
    QCOMPARE(s->text(), "ba-long tail");
    QCOMPARE(s->allocLen(), 12);
}

void DStringTest::replaceBySearch()
{
    QScopedPointer<DString> s(make("key=value;rest"));
    s->replace("new", 1, '=', 1, ';');
    QCOMPARE(s->text(), "key=new;rest");
    s->replace("(", DString::IncludeDelimiter | 1, '=', DString::IncludeDelimiter | 1, ';');
    QCOMPARE(s->text(), "key(rest");

    QScopedPointer<DString> missing(make("abc]"));
    missing->replace("X", DString::CreateDelimiter | 1, '[', 1, ']');
    QCOMPARE(missing->text(), "[X]");

    QScopedPointer<DString> plain(make("abc"));
    plain->replace("X", 1, '[', 1, ']'); // neither found: the whole text
    QCOMPARE(plain->text(), "X");

    QScopedPointer<DString> last(make("a.b.c"));
    last->replace("Z", 254, '.', 255, '\0');
    QCOMPARE(last->text(), "a.b.Z");
}

// A missing end delimiter is appended (the text grows by one), but the range then runs to the new end of
// the text, so the appended delimiter is replaced along with the rest.
void DStringTest::replaceCreatesMissingEndDelimiter()
{
    QScopedPointer<DString> s(make("[abc"));
    s->replace("X", 1, '[', DString::CreateDelimiter | 1, ']');
    QCOMPARE(s->text(), "[X");
    QCOMPARE(s->allocLen(), 5); // grown for "[abc]"

    QScopedPointer<DString> longer(make("[abc"));
    longer->replace("XYZWV", 1, '[', DString::CreateDelimiter | DString::IncludeDelimiter | 1, ']');
    QCOMPARE(longer->text(), "[XYZWV");
    QCOMPARE(longer->allocLen(), 6);

    QScopedPointer<DString> key(make("key=value"));
    key->replace("new", 1, '=', DString::CreateDelimiter | 1, ';');
    QCOMPARE(key->text(), "key=new");
    QCOMPARE(key->allocLen(), 10);
    QScopedPointer<DString> plainKey(make("key=value"));
    plainKey->replace("new", 1, '=', 1, ';'); // nothing appended without the flag
    QCOMPARE(plainKey->text(), "key=new");
    QCOMPARE(plainKey->allocLen(), 9);

    // Both delimiters missing: '[' goes in front and is kept, ']' is appended and replaced.
    QScopedPointer<DString> both(make("abc"));
    both->replace("X", DString::CreateDelimiter | 1, '[', DString::CreateDelimiter | 1, ']');
    QCOMPARE(both->text(), "[X");
    QCOMPARE(both->allocLen(), 5);

    // extract never creates a delimiter: a missing end copies the rest of the text.
    QScopedPointer<DString> source(make("[abc"));
    DString out;
    source->extract(out, 1, '[', DString::CreateDelimiter | 1, ']');
    QCOMPARE(out.text(), "abc");
    QCOMPARE(source->text(), "[abc");
    QCOMPARE(source->allocLen(), 4);
}

void DStringTest::extractBySearch()
{
    QScopedPointer<DString> s(make("key=value;rest"));
    DString out;
    s->extract(out, 1, '=', 1, ';');
    QCOMPARE(out.text(), "value");
    s->extract(out, DString::IncludeDelimiter | 1, '=', 1, ';');
    QCOMPARE(out.text(), "=value");
    s->extract(out, 1, '=', DString::IncludeDelimiter | 1, ';');
    QCOMPARE(out.text(), "value;");
    s->extract(out, 1, '=', 1, '#');
    QCOMPARE(out.text(), "value;rest");
    s->extract(out, 1, '#', 1, '=');
    QCOMPARE(out.text(), "key");
    QCOMPARE(s->text(), "key=value;rest");
}

QTEST_GUILESS_MAIN(DStringTest)
#include "tst_dstring.moc"
