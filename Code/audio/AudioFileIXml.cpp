// Metadata side of AudioFile: iXML tag search and in-place field editing, 'bext' description keys, and
// writing both back into their chunks. Edits only use the room already in the file (the trailing spaces
// of the iXML text, the 256 bytes of the description), so no chunk ever changes size.

#include "audio/AudioFile.h"

#include "audio/DString.h"

#include <QIODevice>

#include <cstdlib>
#include <cstring>

namespace {

const char kClosingBwfXml[] = "</BWFXML>";
const size_t kClosingBwfXmlLength = sizeof(kClosingBwfXml) - 1;
const int kIXmlLengthLimit = 32768;
const char kTrackTag[] = "<TRACK>";
const char kTrackEndTag[] = "</TRACK>";
const char kTrackCountTag[] = "<TRACK_COUNT>";
const char kInterleaveIndexTag[] = "<INTERLEAVE_INDEX>";
const char kChannelIndexTag[] = "<CHANNEL_INDEX>";
const char kNameTag[] = "<NAME>";
const char kEmptyText[] = "";
const qint64 kFirstChunkPos = 12;

bool isKnownField(int field)
{
    return field >= 0 && field < AudioFile::s_metadataFieldCount;
}

} // namespace

int AudioFile::GetiXMLStatus() const
{
    if (m_iXmlLength == 0)
        return 1;
    if (m_iXmlLength >= kIXmlLengthLimit || !findClosingBwfXml(false))
        return 2;
    return 0;
}

// Only tags written exactly, without attributes, are found: at each '>' the text from the latest '<'
// is compared with the whole tag, angle brackets included.
const char* AudioFile::FindiXMLTag(const char* text, const char* tag, bool after, short length) const
{
    if (!text || !tag)
        return nullptr;
    const char* end = text + (length < 0 ? m_iXmlLength : length);
    const size_t tagLength = std::strlen(tag);
    const char* open = nullptr;
    for (const char* p = text; p < end; ++p) {
        if (*p == '<') {
            open = p;
        } else if (*p == '>' && open && open + tagLength <= end && std::memcmp(open, tag, tagLength) == 0) {
            return after ? open + tagLength : open;
        }
    }
    return nullptr;
}

const char* AudioFile::findClosingBwfXml(bool after) const
{
    return FindiXMLTag(m_iXmlText, kClosingBwfXml, after, -1);
}

const char* AudioFile::GetiXMLField(unsigned char field, unsigned short& length) const
{
    length = 0;
    if (!isKnownField(field))
        return nullptr;
    const char* value = FindiXMLTag(m_iXmlText, ixml_tag[field], true, -1);
    if (value)
        length = GetiXMLFieldLength(value);
    return value;
}

unsigned short AudioFile::GetiXMLFieldLength(const char* value) const
{
    if (!value)
        return 0;
    const char* p = value;
    while (p < iXmlEnd() && *p != '<')
        ++p;
    return static_cast<unsigned short>(p - value);
}

int AudioFile::GetiXMLSpace() const
{
    int spaces = 0;
    for (const char* p = iXmlEnd(); p > m_iXmlText && p[-1] == ' '; --p)
        ++spaces;
    return spaces;
}

// A field that is absent needs room for its opening tag, its closing tag and the closing tag's slash.
int AudioFile::GetiXMLSpace(short field) const
{
    if (!isKnownField(field))
        return 0;
    int room = GetiXMLSpace();
    if (!FindiXMLTag(m_iXmlText, ixml_tag[field], false, -1))
        room -= 2 * int(std::strlen(ixml_tag[field])) + 1;
    return qMax(room, 0);
}

int AudioFile::GetNumiXMLTracks() const
{
    const char* count = FindiXMLTag(m_iXmlText, kTrackCountTag, true, -1);
    return count ? std::atoi(count) : 0;
}

const char* AudioFile::GetiXMLTrackInfo(
    unsigned char track, int& channelIndex, unsigned short& nameLength) const
{
    nameLength = 0;
    const char* cursor = m_iXmlText;
    while (const char* trackStart = FindiXMLTag(cursor, kTrackTag, true, short(iXmlEnd() - cursor))) {
        const char* trackEnd = FindiXMLTag(trackStart, kTrackEndTag, false, short(iXmlEnd() - trackStart));
        if (!trackEnd)
            trackEnd = iXmlEnd();
        const short span = short(trackEnd - trackStart);
        const char* interleave = FindiXMLTag(trackStart, kInterleaveIndexTag, true, span);
        // Tracks are numbered from 0 here and from 1 in the interleave index.
        if (interleave && std::atoi(interleave) == track + 1) {
            const char* channel = FindiXMLTag(trackStart, kChannelIndexTag, true, span);
            channelIndex = channel ? std::atoi(channel) : 0;
            const char* name = FindiXMLTag(trackStart, kNameTag, true, span);
            nameLength = GetiXMLFieldLength(name);
            return name;
        }
        cursor = trackEnd;
    }
    return nullptr;
}

bool AudioFile::SetiXMLTrackNameField(unsigned char track, const char* name)
{
    int channelIndex = 0;
    unsigned short nameLength = 0;
    const char* where = GetiXMLTrackInfo(track, channelIndex, nameLength);
    if (!where)
        return false;
    InsertiXMLFieldStr(where, name);
    return true;
}

void AudioFile::padIXmlWithSpaces(const char* from)
{
    if (from < iXmlEnd())
        std::memset(m_iXmlText + (from - m_iXmlText), ' ', size_t(iXmlEnd() - from));
}

// The new value may use the old value's length plus the trailing spaces; a longer one is truncated.
// Everything up to "</BWFXML>" shifts by the change and the room behind it is padded with spaces again.
void AudioFile::InsertiXMLFieldStr(const char* where, const char* text)
{
    if (!where || !text)
        return;
    const int oldLength = GetiXMLFieldLength(where);
    const int room = GetiXMLSpace();
    const int newLength = qMin(int(std::strlen(text)), oldLength + room);
    if (newLength == 0)
        return;
    const char* closingEnd = findClosingBwfXml(true);
    if (!closingEnd || where + oldLength > closingEnd)
        return;

    char* value = m_iXmlText + (where - m_iXmlText);
    std::memmove(value + newLength, value + oldLength, size_t(closingEnd - (where + oldLength)));
    std::memcpy(value, text, size_t(newLength));
    m_iXmlModified = true;
    padIXmlWithSpaces(closingEnd + (newLength - oldLength));
}

// An absent field is written in place of "</BWFXML>", followed by its closing tag and "</BWFXML>".
unsigned int AudioFile::PutiXMLField(unsigned char field, const char* text)
{
    if (!isKnownField(field))
        return s_fieldsNotCreated;
    if (!text)
        return s_resultOk;
    unsigned short oldLength = 0;
    const char* existing = GetiXMLField(field, oldLength);
    const int n = qMin(int(std::strlen(text)), GetiXMLSpace(field) + oldLength);
    if (n == 0)
        return s_resultOk;
    if (existing) {
        InsertiXMLFieldStr(existing, text);
        return s_resultOk;
    }
    if ((s_fieldsNotCreated >> field) & 1)
        return s_fieldsNotCreated;
    const char* closing = findClosingBwfXml(false);
    if (!closing)
        return s_resultOk;

    const char* tag = ixml_tag[field];
    const size_t tagLength = std::strlen(tag);
    char* out = m_iXmlText + (closing - m_iXmlText);
    std::memcpy(out, tag, tagLength);
    out += tagLength;
    std::memcpy(out, text, size_t(n));
    out += n;
    *out++ = tag[0]; // the closing tag is the opening one with a '/' after its '<'
    *out++ = '/';
    std::memcpy(out, tag + 1, tagLength - 1);
    out += tagLength - 1;
    std::memcpy(out, kClosingBwfXml, kClosingBwfXmlLength);
    out += kClosingBwfXmlLength;
    m_iXmlModified = true;
    padIXmlWithSpaces(out);
    return s_resultOk;
}

bool AudioFile::GetiXMLBoolField(const char* value) const
{
    return value && std::strncmp(value, "TRUE", 4) == 0;
}

const char* AudioFile::GetMetadataField(unsigned char field, unsigned short& length) const
{
    if (m_formatKind == FormatMpegLayer3)
        return GetMP3MetadataField(field, length);
    return GetiXMLField(field, length);
}

const char* AudioFile::GetMP3MetadataField(unsigned char, unsigned short& length) const
{
    length = 0;
    return kEmptyText;
}

// The key is formatted through DString::printf, which drops the last character when it grows the
// buffer, so the key searched for and written is "sTRK" and the number, without the '='.
void AudioFile::SetBextTrackNameField(unsigned char track, const char* name)
{
    DString key;
    key.printf("sTRK%u=", unsigned(track));
    InsertBextFieldStr(key.text(), name);
}

void AudioFile::PutBextField(unsigned char field, const char* value)
{
    if (isKnownField(field))
        InsertBextFieldStr(bext_tag[field], value);
}

// Lines of the description are "key value\r\n". An existing key's line is removed by moving the lines
// after it down, and the new line goes after them. A new key's line starts over the last character of
// the present text; that one-character overlap is deliberate. An empty description starts at its
// first byte, since there is no last character to overlap.
void AudioFile::InsertBextFieldStr(const char* key, const char* value)
{
    if (!key)
        return;
    char* const description = m_description;
    char* line = nullptr;
    if (char* found = std::strstr(description, key)) {
        const char* lineEnd = std::strstr(found, "\r\n");
        if (lineEnd && lineEnd[2] != '\0') {
            const size_t following = std::strlen(lineEnd + 2);
            std::memmove(found, lineEnd + 2, following);
            line = found + following;
        } else {
            line = found;
        }
    } else {
        const size_t used = std::strlen(description);
        if (size_t(s_descriptionSize) - used < std::strlen(key))
            return;
        line = used > 0 ? description + used - 1 : description;
    }

    char* const end = description + s_descriptionSize;
    for (const char* k = key; *k && line < end; ++k)
        *line++ = *k;
    for (const char* v = value ? value : kEmptyText; *v && line < end; ++v)
        *line++ = *v;
    if (line < end)
        *line++ = '\r';
    if (line < end)
        *line++ = '\n';
    std::memset(line, 0, size_t(end - line));
}

// Writes the iXML text and the description over their chunks' payloads, never past a chunk's end.
unsigned int AudioFile::WriteMetadata()
{
    if (m_formatKind == FormatMpegLayer3)
        return s_resultOk;
    const qint64 resumePos = GetCurrPos();
    if (!seekTo(kFirstChunkPos))
        return s_resultDeviceError;
    m_nextChunkPos = kFirstChunkPos;

    unsigned int result = s_resultOk;
    bool wroteIXml = false;
    bool wroteBext = false;
    while (!(wroteIXml && wroteBext)) {
        ChunkInfo chunk;
        if (GetNextChunk(&chunk) != s_resultOk) {
            result = s_resultDeviceError;
            break;
        }
        if (chunk.id == s_chunkIXml) {
            const qint64 count = qMin<qint64>(m_iXmlLength, chunk.size);
            if (!writeExactly(m_iXmlText, count)) {
                result = s_resultDeviceError;
                break;
            }
            wroteIXml = true;
        } else if (chunk.id == s_chunkBext) {
            const qint64 count = qMin<qint64>(s_descriptionSize, chunk.size);
            if (!writeExactly(m_description, count)) {
                result = s_resultDeviceError;
                break;
            }
            wroteBext = true;
        } else if (chunk.id == s_chunkData && GetCurrPos() + chunk.size == m_device->size()) {
            break;
        }
    }
    m_iXmlModified = false; // whatever the walk met: a failed write is not tried again
    seekTo(resumePos);
    return result;
}
