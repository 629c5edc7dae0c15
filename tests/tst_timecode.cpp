#include "timecode/Timecode.h"

#include <QMetaType>
#include <QSignalSpy>
#include <QtTest>

#include <cstring>

namespace {

// Packed word from its four fields, written out by hand: hours, minutes, seconds, frames.
unsigned long tc(unsigned h, unsigned m, unsigned s, unsigned f)
{
    return (unsigned long)h << 24 | m << 16 | s << 8 | f;
}

const unsigned long kDropFramesPerDay = 2589408; // 24 * 107892
const unsigned long kDropFramesPerHour = 107892;
const unsigned short kDf2997 = 4;
const unsigned short kDf30 = 6;

// Frame number of the first label of minute m (of hour 0) in 29.97 drop-frame counting: minute 0 and
// every tenth minute hold 1800 frames, the others 1798.
unsigned long firstFrameOfMinute(unsigned m)
{
    return 1798UL * m + 2UL * ((m + 9) / 10);
}

// The first sample that lies inside frame n at 48 kHz and exactly 29.97 fps (30 * 999 / 1000).
unsigned long long firstSampleOfDropFrame(unsigned long n)
{
    return (n * 48000000ULL + 29969) / 29970;
}

} // namespace

class TimecodeTest : public QObject
{
    Q_OBJECT

private slots:
    void tables();
    void framesToTcAroundFirstDropMinute();
    void dropFrameRoundTripOverWholeDay_data();
    void dropFrameRoundTripOverWholeDay();
    void nonDropRoundTripOverWholeDay();
    void tcToFramesNonDropAndFallback();
    void samplesToTcAtDroppedLabel();
    void samplesToTcDiffersFromFramesToTcAtEveryDroppedMinute();
    void samplesConversionsAndZero();
    void hundredths();
    void addSubWrapAtMidnight();
    void addSubAcrossDropMinutes();
    void addSubStepEveryFrameOfDay();
    void forceValidAndDropTime();
    void convertTimecodeRescalesFrames();
    void convertVideoFrameRate();
    void allChannelsBitMask();
    void timecodeObjectFields();
    void timecodeSignals();
};

void TimecodeTest::tables()
{
    const unsigned short fps[7] = { 24, 24, 25, 30, 30, 30, 30 };
    const unsigned short r[7] = { 1001, 1, 1, 1001, 1000, 1, 1 };
    const unsigned short m[7] = { 1000, 1, 1, 1000, 999, 1, 1 };
    const unsigned char df[7] = { 0, 0, 0, 0, 1, 0, 1 };
    const unsigned char integer[7] = { 0, 1, 1, 0, 0, 1, 1 };
    const char* const text[8] = { "23.976", "24", "25", "29.97ND", "29.97DF", "30", "30 DF", "No TC" };
    for (int i = 0; i < 7; ++i) {
        QCOMPARE(TC::fps_map[i], fps[i]);
        QCOMPARE(TC::r_fact[i], r[i]);
        QCOMPARE(TC::m_fact[i], m[i]);
        QCOMPARE(TC::df_map[i], df[i]);
        QCOMPARE(TC::integerMap[i], integer[i]);
    }
    for (int i = 0; i < 8; ++i)
        QCOMPARE(TC::frame_rate_str[i], text[i]);
}

void TimecodeTest::framesToTcAroundFirstDropMinute()
{
    QCOMPARE(TC::FramesToTC(1800, kDf2997, false), 0x00010002UL);
    QCOMPARE(TC::TCToFrames(0x00010002, kDf2997), 1800UL);
    QCOMPARE(TC::FramesToTC(1798, kDf2997, false), 0x00003B1CUL);
    QCOMPARE(TC::FramesToTC(1799, kDf2997, false), 0x00003B1DUL);
    QCOMPARE(TC::FramesToTC(17982, kDf2997, false), tc(0, 10, 0, 0));
    QCOMPARE(TC::FramesToTC(kDropFramesPerDay - 1, kDf2997, false), tc(23, 59, 59, 29));
    QCOMPARE(TC::FramesToTC(0, kDf2997, false), 0UL);
    // No label exists for an unknown code.
    QCOMPARE(TC::FramesToTC(1800, 7, false), 0UL);
    QCOMPARE(TC::FramesToTC(1800, 255, false), 0UL);
}

void TimecodeTest::dropFrameRoundTripOverWholeDay_data()
{
    QTest::addColumn<unsigned short>("rate");
    QTest::newRow("29.97 DF") << kDf2997;
    QTest::newRow("30 DF") << kDf30;
}

void TimecodeTest::dropFrameRoundTripOverWholeDay()
{
    QFETCH(unsigned short, rate);
    unsigned long previous = 0;
    for (unsigned long n = 0; n < kDropFramesPerDay; ++n) {
        const unsigned long label = TC::FramesToTC(n, rate, false);
        if (TC::TCToFrames(label, rate) != n)
            QFAIL(qPrintable(QString("frame %1 gives label %2").arg(n).arg(label, 8, 16, QChar('0'))));
        const bool skipped
            = (label & 0xFF) <= 1 && ((label >> 8) & 0xFF) == 0 && ((label >> 16) & 0xFF) % 10 != 0;
        if (skipped || (n > 0 && label <= previous))
            QFAIL(qPrintable(QString("frame %1 has label %2").arg(n).arg(label, 8, 16, QChar('0'))));
        previous = label;
    }
}

void TimecodeTest::nonDropRoundTripOverWholeDay()
{
    for (unsigned short rate : { 0, 1, 2, 3, 5 }) {
        const unsigned long fps = TC::fps_map[rate];
        for (unsigned long n = 0; n < 86400 * fps; n += 7) {
            if (TC::TCToFrames(TC::FramesToTC(n, rate, false), rate) != n)
                QFAIL(qPrintable(QString("code %1 frame %2").arg(rate).arg(n)));
        }
    }
    QCOMPARE(TC::FramesToTC(93079, 2, false), tc(1, 2, 3, 4));
}

void TimecodeTest::tcToFramesNonDropAndFallback()
{
    QCOMPARE(TC::TCToFrames(tc(1, 2, 3, 4), 2), 93079UL); // (3600 + 120 + 3) * 25 + 4
    QCOMPARE(TC::TCToFrames(tc(0, 10, 0, 0), kDf2997), 17982UL);
    QCOMPARE(TC::TCToFrames(tc(1, 0, 0, 0), kDf30), kDropFramesPerHour);
    QCOMPARE(TC::TCToFrames(tc(0, 0, 1, 50), 9), 150UL); // hundredths of a second
    QCOMPARE(TC::TCToFrames(0, kDf2997), 0UL);
}

void TimecodeTest::samplesToTcAtDroppedLabel()
{
    long remainder = -1;
    QCOMPARE(TC::SamplesToFrames(2879680, 48000, kDf2997), 1798UL);
    QCOMPARE(TC::SamplesToTC(2879680, 48000, kDf2997, &remainder, false), 0x00010002UL);
    QCOMPARE(remainder, 1L);
}

// At 29.97 DF the last two frames of every minute before a non-tenth minute get the labels of the next
// minute's first two frames from SamplesToTC, while FramesToTC labels them second 59;28 and 59;29.
void TimecodeTest::samplesToTcDiffersFromFramesToTcAtEveryDroppedMinute()
{
    QCOMPARE(TC::SamplesToTC(firstSampleOfDropFrame(1798), 48000, kDf2997, nullptr, false), tc(0, 1, 0, 2));
    QCOMPARE(TC::SamplesToTC(firstSampleOfDropFrame(1799), 48000, kDf2997, nullptr, false), tc(0, 1, 0, 3));
    QCOMPARE(TC::FramesToTC(1798, kDf2997, false), tc(0, 0, 59, 28));
    QCOMPARE(TC::FramesToTC(1799, kDf2997, false), tc(0, 0, 59, 29));

    for (unsigned m = 1; m < 60; ++m) {
        const unsigned long first = firstFrameOfMinute(m);
        const bool drops = m % 10 != 0;
        const unsigned firstLabel = drops ? 2 : 0;
        const unsigned long frameLabels[4] = { tc(0, m - 1, 59, 28), tc(0, m - 1, 59, 29),
            tc(0, m, 0, firstLabel), tc(0, m, 0, firstLabel + 1) };
        const unsigned long sampleLabels[4] = { drops ? tc(0, m, 0, 2) : frameLabels[0],
            drops ? tc(0, m, 0, 3) : frameLabels[1], frameLabels[2], frameLabels[3] };
        for (int i = 0; i < 4; ++i) {
            const unsigned long n = first - 2 + i;
            long remainder = -1;
            QCOMPARE(TC::FramesToTC(n, kDf2997, false), frameLabels[i]);
            QCOMPARE(TC::SamplesToTC(firstSampleOfDropFrame(n), 48000, kDf2997, &remainder, false),
                sampleLabels[i]);
            QVERIFY(remainder >= 0 && remainder < 1602); // one frame is 1601.6 samples
        }
    }

    // Everywhere else in the hour the two functions agree: 54 minutes with two differing frames each.
    int differing = 0;
    for (unsigned long n = 0; n < kDropFramesPerHour; ++n) {
        if (TC::SamplesToTC(firstSampleOfDropFrame(n), 48000, kDf2997, nullptr, false)
            != TC::FramesToTC(n, kDf2997, false))
            ++differing;
    }
    QCOMPARE(differing, 108);
    QCOMPARE(TC::SamplesToTC(firstSampleOfDropFrame(kDropFramesPerHour), 48000, kDf2997, nullptr, false),
        tc(1, 0, 0, 0));
}

void TimecodeTest::samplesConversionsAndZero()
{
    long remainder = 77;
    QCOMPARE(TC::SamplesToTC(0, 48000, kDf2997, &remainder, false), 0UL);
    QCOMPARE(remainder, 0L);
    QCOMPARE(TC::FramesToSamples(0, 48000, 1), 0UL);
    QCOMPARE(TC::TCToSamples(0, 48000, 1), 0UL);
    QCOMPARE(TC::SamplesToFrames(0, 48000, 1), 0UL);
    QCOMPARE(TC::FramesToSamples(1, 48000, 1), 2001UL);
    QCOMPARE(TC::TCToSamples(tc(0, 0, 0, 1), 48000, 1), 2001UL);
    // 1800 frames at exactly 29.97: 1800 * 48000 * 1000 / 29970 = 2882882.88..., plus one.
    QCOMPARE(TC::TCToSamples(tc(0, 1, 0, 2), 48000, kDf2997), 2882883UL);
    QCOMPARE(TC::FramesToSamples(1800, 48000, kDf2997), 2882883UL);
    QCOMPARE(TC::SamplesToFrames(48000, 48000, 3), 29UL); // 29.97 non-drop
    QCOMPARE(TC::SamplesToFrames(48048, 48000, 3), 30UL);
    // Unknown codes give 0 here and count hundredths elsewhere.
    QCOMPARE(TC::FramesToSamples(1, 48000, 7), 0UL);
    QCOMPARE(TC::SamplesToFrames(48000, 48000, 7), 0UL);
    QCOMPARE(TC::TCToSamples(tc(0, 0, 1, 0), 48000, 7), 48001UL);
}

void TimecodeTest::hundredths()
{
    QCOMPARE(TC::SamplesToTC(72000, 48000, 5, nullptr, true), tc(0, 0, 1, 50));
    QCOMPARE(TC::SamplesToTC(72000, 48000, kDf2997, nullptr, true), tc(0, 0, 1, 50));
    QCOMPARE(TC::SamplesToTC(72000, 48000, 200, nullptr, false), tc(0, 0, 1, 50));
    QCOMPARE(TC::FramesToTC(45, 5, true), tc(0, 0, 1, 50));
    QCOMPARE(TC::FramesToTC(37, 2, true), tc(0, 0, 1, 48)); // 12 of 25 frames
}

void TimecodeTest::addSubWrapAtMidnight()
{
    QCOMPARE(TC::AddTC(tc(23, 59, 59, 29), tc(0, 0, 0, 1), 5), 0UL);
    QCOMPARE(TC::SubTC(0, tc(0, 0, 0, 1), 5), tc(23, 59, 59, 29));
    QCOMPARE(TC::AddTC(tc(23, 59, 59, 29), tc(0, 0, 0, 1), kDf2997), 0UL);
    QCOMPARE(TC::SubTC(0, tc(0, 0, 0, 1), kDf2997), tc(23, 59, 59, 29));
    QCOMPARE(TC::AddTC(tc(23, 59, 59, 29), tc(0, 0, 0, 1), kDf30), 0UL);
    QCOMPARE(TC::SubTC(0, tc(0, 0, 0, 1), kDf30), tc(23, 59, 59, 29));
    QCOMPARE(TC::AddTC(tc(23, 0, 0, 0), tc(1, 0, 0, 0), 2), 0UL);
    QCOMPARE(TC::SubTC(tc(0, 0, 0, 0), tc(2, 0, 0, 0), 2), tc(22, 0, 0, 0));
    QCOMPARE(TC::AddTC(tc(23, 59, 59, 24), tc(0, 0, 0, 1), 2), 0UL);
    QCOMPARE(TC::SubTC(0, tc(0, 0, 0, 1), 2), tc(23, 59, 59, 24));
    // Unknown codes count hundredths.
    QCOMPARE(TC::AddTC(tc(0, 0, 0, 99), tc(0, 0, 0, 1), 9), tc(0, 0, 1, 0));
    QCOMPARE(TC::SubTC(0, tc(0, 0, 0, 1), 9), tc(23, 59, 59, 99));
    QCOMPARE(TC::SubTC(tc(1, 2, 3, 4), 0, kDf2997), tc(1, 2, 3, 4));
}

void TimecodeTest::addSubAcrossDropMinutes()
{
    QCOMPARE(TC::AddTC(tc(0, 0, 59, 29), tc(0, 0, 0, 1), kDf2997), tc(0, 1, 0, 2));
    QCOMPARE(TC::SubTC(tc(0, 1, 0, 2), tc(0, 0, 0, 1), kDf2997), tc(0, 0, 59, 29));
    QCOMPARE(TC::AddTC(tc(0, 9, 59, 29), tc(0, 0, 0, 1), kDf2997), tc(0, 10, 0, 0));
    QCOMPARE(TC::SubTC(tc(0, 10, 0, 0), tc(0, 0, 0, 1), kDf2997), tc(0, 9, 59, 29));
    QCOMPARE(TC::AddTC(tc(0, 0, 59, 20), tc(0, 0, 0, 10), kDf2997), tc(0, 1, 0, 2)); // frame 1790 + 10
    QCOMPARE(TC::SubTC(tc(0, 1, 0, 5), tc(0, 0, 0, 10), kDf2997), tc(0, 0, 59, 23)); // frame 1803 - 10
    QCOMPARE(TC::SubTC(tc(0, 1, 0, 2), tc(0, 0, 0, 3), kDf2997), tc(0, 0, 59, 27)); // frame 1800 - 3
    QCOMPARE(TC::AddTC(tc(12, 34, 59, 29), tc(0, 0, 0, 1), kDf30), tc(12, 35, 0, 2));
    QCOMPARE(TC::SubTC(tc(12, 35, 0, 3), tc(0, 0, 0, 2), kDf30), tc(12, 34, 59, 29));
    // The same steps without drop-frame counting.
    QCOMPARE(TC::AddTC(tc(0, 0, 59, 29), tc(0, 0, 0, 1), 5), tc(0, 1, 0, 0));
    QCOMPARE(TC::SubTC(tc(0, 1, 0, 0), tc(0, 0, 0, 1), 5), tc(0, 0, 59, 29));
}

// One frame forward and back from every label of the day lands on the neighbouring label, at both
// drop-frame codes, including the wrap at midnight.
void TimecodeTest::addSubStepEveryFrameOfDay()
{
    for (unsigned short rate : { kDf2997, kDf30 }) {
        unsigned long label = 0;
        for (unsigned long n = 0; n < kDropFramesPerDay; ++n) {
            const unsigned long next = n + 1 == kDropFramesPerDay ? 0 : TC::FramesToTC(n + 1, rate, false);
            if (TC::AddTC(label, 1, rate) != next || TC::SubTC(next, 1, rate) != label)
                QFAIL(qPrintable(QString("code %1 frame %2").arg(rate).arg(n)));
            label = next;
        }
    }
}

void TimecodeTest::forceValidAndDropTime()
{
    QCOMPARE(TC::ForceValidDFVal(tc(0, 1, 0, 0)), tc(0, 1, 0, 2));
    QCOMPARE(TC::ForceValidDFVal(tc(3, 1, 0, 1)), tc(3, 1, 0, 3));
    QCOMPARE(TC::ForceValidDFVal(tc(0, 10, 0, 0)), tc(0, 10, 0, 0));
    QCOMPARE(TC::ForceValidDFVal(tc(0, 1, 1, 0)), tc(0, 1, 1, 0));
    QCOMPARE(TC::ForceValidDFVal(tc(0, 1, 0, 2)), tc(0, 1, 0, 2));
    QVERIFY(TC::IsDropTime(tc(0, 1, 0, 5)));
    QVERIFY(!TC::IsDropTime(tc(0, 20, 0, 0)));
    QVERIFY(!TC::IsDropTime(tc(0, 1, 1, 0)));
}

void TimecodeTest::convertTimecodeRescalesFrames()
{
    unsigned long word = tc(1, 2, 3, 24);
    TC::convertTimecode(word, Timecode::FrameRate25, Timecode::FrameRate30);
    QCOMPARE(word, tc(1, 2, 3, 29)); // 28.8 rounded
    word = tc(1, 2, 3, 29);
    TC::convertTimecode(word, Timecode::FrameRate30, Timecode::FrameRate24);
    QCOMPARE(word, tc(1, 2, 3, 23)); // 23.2
    word = tc(1, 2, 3, 5);
    TC::convertTimecode(word, Timecode::FrameRate24, Timecode::FrameRate30);
    QCOMPARE(word, tc(1, 2, 3, 6)); // 6.25
    word = tc(1, 2, 3, 0);
    TC::convertTimecode(word, Timecode::FrameRate25, Timecode::FrameRate30);
    QCOMPARE(word, tc(1, 2, 3, 0));
    word = tc(1, 2, 3, 24);
    TC::convertTimecode(word, Timecode::FrameRate25, Timecode::FrameRate25);
    QCOMPARE(word, tc(1, 2, 3, 24));
    TC::convertTimecode(word, Timecode::FrameRateInvalid, Timecode::FrameRate30);
    QCOMPARE(word, tc(1, 2, 3, 24));
    TC::convertTimecode(word, Timecode::FrameRate25, Timecode::FrameRateInvalid);
    QCOMPARE(word, tc(1, 2, 3, 24));
}

void TimecodeTest::convertVideoFrameRate()
{
    QCOMPARE(TC::convertVideoFrameRate(5994, true), Timecode::FrameRate2997Df);
    QCOMPARE(TC::convertVideoFrameRate(2398, false), Timecode::FrameRate23976);
    QCOMPARE(TC::convertVideoFrameRate(4800, false), Timecode::FrameRate24);
    QCOMPARE(TC::convertVideoFrameRate(1000, false), Timecode::FrameRate23976);
    QCOMPARE(TC::convertVideoFrameRate(2600, false), Timecode::FrameRateInvalid);
    QCOMPARE(TC::convertVideoFrameRate(0, true), Timecode::FrameRateInvalid);
    QCOMPARE(TC::convertVideoFrameRate(2997, false), Timecode::FrameRate2997);
    QCOMPARE(TC::convertVideoFrameRate(3000, true), Timecode::FrameRate30Df);
    QCOMPARE(TC::convertVideoFrameRate(6000, false), Timecode::FrameRate30);
    QCOMPARE(TC::convertVideoFrameRate(5000, false), Timecode::FrameRate25);
    QCOMPARE(TC::convertVideoFrameRate(4795, false), Timecode::FrameRate23976);
    QCOMPARE(TC::convertVideoFrameRate(2397, true), Timecode::FrameRate23976);
}

void TimecodeTest::allChannelsBitMask()
{
    QCOMPARE(Tracks::AllChannelsBitMask(2), 3ULL);
    QCOMPARE(Tracks::AllChannelsBitMask(64), 0ULL);
    QCOMPARE(Tracks::AllChannelsBitMask(0), 0ULL);
    QCOMPARE(Tracks::AllChannelsBitMask(63), 0x7FFFFFFFFFFFFFFFULL);
    QCOMPARE(Tracks::AllChannelsBitMask(65), 1ULL);
}

void TimecodeTest::timecodeObjectFields()
{
    const Timecode none;
    QCOMPARE(none.getFrameRate(), Timecode::FrameRateInvalid);
    QCOMPARE(none.getStatus(), Timecode::NoTimecode);
    QVERIFY(!none.isDropFrame());
    QCOMPARE(int(none.getHours()) + none.getMinutes() + none.getSeconds() + none.getFrames(), 0);
    QCOMPARE(none.getUserBits(), 0UL);
    QVERIFY(QMetaType::type("Timecode::FrameRate") != QMetaType::UnknownType);
    QVERIFY(QMetaType::type("Timecode::Status") != QMetaType::UnknownType);

    const Timecode fields(1, 2, 3, 4, Timecode::FrameRate30Df);
    QCOMPARE(fields.getStatus(), Timecode::Stopped);
    QVERIFY(fields.isDropFrame());
    QCOMPARE(int(fields.getHours()), 1);
    QCOMPARE(int(fields.getFrames()), 4);

    const Timecode packed(0x0A0B0C0DUL, Timecode::FrameRate2997);
    QVERIFY(!packed.isDropFrame());
    QCOMPARE(packed.getStatus(), Timecode::Stopped);
    QCOMPARE(int(packed.getHours()), 10);
    QCOMPARE(int(packed.getMinutes()), 11);
    QCOMPARE(int(packed.getSeconds()), 12);
    QCOMPARE(int(packed.getFrames()), 13);
    QVERIFY(Timecode(0UL, Timecode::FrameRate2997Df).isDropFrame());
    QVERIFY(!Timecode(0UL, Timecode::FrameRate30).isDropFrame());
}

void TimecodeTest::timecodeSignals()
{
    Timecode value(tc(1, 2, 3, 4), Timecode::FrameRate25);
    QSignalSpy rateSpy(&value, &Timecode::frameRateChanged);
    QSignalSpy statusSpy(&value, &Timecode::statusChanged);
    QSignalSpy bitsSpy(&value, &Timecode::userBitsChanged);

    value.setTimecode(tc(5, 6, 7, 8), Timecode::FrameRate25, Timecode::Stopped);
    QCOMPARE(int(value.getHours()), 5);
    QCOMPARE(rateSpy.count() + statusSpy.count(), 0);

    value.setLtcTimecode(tc(9, 10, 11, 12));
    QCOMPARE(int(value.getMinutes()), 10);
    QCOMPARE(rateSpy.count() + statusSpy.count() + bitsSpy.count(), 0);

    value.setTimecode(tc(0, 0, 0, 1), Timecode::FrameRate2997Df, Timecode::Running);
    QCOMPARE(rateSpy.count(), 1);
    QCOMPARE(rateSpy.at(0).at(0).value<Timecode::FrameRate>(), Timecode::FrameRate2997Df);
    QCOMPARE(statusSpy.count(), 1);
    QCOMPARE(statusSpy.at(0).at(0).value<Timecode::Status>(), Timecode::Running);
    QVERIFY(!value.isDropFrame()); // kept from construction

    value.setFrameRate(Timecode::FrameRate2997Df);
    value.setStatus(Timecode::Running);
    QCOMPARE(rateSpy.count() + statusSpy.count(), 2);
    value.setStatus(Timecode::Stopped);
    QCOMPARE(statusSpy.count(), 2);

    value.setUserBits(0x12345678);
    value.setUserBits(0x12345678);
    QCOMPARE(bitsSpy.count(), 1);
    QCOMPARE(bitsSpy.at(0).at(0).value<unsigned long>(), 0x12345678UL);
}

QTEST_GUILESS_MAIN(TimecodeTest)
#include "tst_timecode.moc"
