#pragma once

#include <QtGlobal>

#include <cstdarg>

// A growable, NUL-terminated 8-bit character buffer with printf-style formatting, character search by
// occurrence and range replacement.
//
// An empty buffer owns no heap memory: its text pointer then points at the zero capacity field, whose
// bytes read as "". A non-zero capacity owns an array of capacity + 1 bytes. Growth is exact (no
// doubling), so formatting and appending reallocate to precisely the length needed.
//
// Search codes (findChar and the range searches of replace and extract): the low 8 bits choose an
// occurrence. 0 finds nothing; 1-127 the first occurrence (every count: the forward search restarts on
// the match it found); 255 the terminating NUL; 254 the last occurrence, 253 the one before, and so on.
// Bit 8 (IncludeDelimiter) keeps the delimiter in the range; bit 9 (CreateDelimiter) makes replace add
// a missing delimiter (a start one in front of the text, an end one after it).
class DString
{
public:
    enum printf_t { Set = 0, Append = 1 };

    static const int IncludeDelimiter = 0x100;
    static const int CreateDelimiter = 0x200;

    explicit DString(int allocLen = 0);
    ~DString();

    DString(const DString&) = delete;
    DString& operator=(const DString&) = delete;

    const char* text() const { return m_text; }
    int allocLen() const { return m_allocLen; }
    int length() const;

    bool setAllocLen(int n);
    void strSet(const char* s, int len);
    bool setChar(char c, int pos);
    char operator[](int pos) const;
    const char* findChar(int search, char c) const;
    void strCat(const char* s);
    DString& replace(const char* with, const char* from, const char* to);
    DString& replace(const char* with, int startSearch, char startCh, int endSearch, char endCh);
    void extract(DString& out, int startSearch, char startCh, int endSearch, char endCh) const;
    void insert(const char* s, int pos);
    void insertChar(char c, int count);
    void removeWhiteSpace();

    // Both return the formatted length. When the text had to grow, or filled the room exactly, the last
    // formatted character is lost to the terminating NUL: printf("sTRK%u=", 3u) leaves "sTRK3".
    int printf(const char* fmt, ...) Q_ATTRIBUTE_FORMAT_PRINTF(2, 3);
    int appendPrintf(const char* fmt, ...) Q_ATTRIBUTE_FORMAT_PRINTF(2, 3);
    int corePrintf(printf_t mode, const char* fmt, va_list args);

private:
    bool ownsHeap() const { return m_allocLen != 0; }
    int indexOf(const char* p) const { return static_cast<int>(p - m_text); }

    char* m_text;
    int m_allocLen;
};
