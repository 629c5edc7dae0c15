#pragma once

#include <QObject>

// One SMPTE timecode value with its frame rate, status and user bits; changes are announced by signals.
//
// The packed timecode word used here and by the TC functions is an unsigned long whose low 32 bits hold
// hours (bits 24-31), minutes (16-23), seconds (8-15) and frames (0-7) as plain binary counts. The word
// carries no drop-frame flag: the frame-rate code passed beside it says whether it is drop-frame.
class Timecode : public QObject
{
    Q_OBJECT

public:
    enum FrameRate {
        FrameRate23976 = 0,
        FrameRate24 = 1,
        FrameRate25 = 2,
        FrameRate2997 = 3,
        FrameRate2997Df = 4,
        FrameRate30 = 5,
        FrameRate30Df = 6,
        FrameRateInvalid = 255
    };
    Q_ENUM(FrameRate)

    enum Status { NoTimecode = 0, Stopped = 1, Running = 2 };
    Q_ENUM(Status)

    Timecode();
    Timecode(unsigned char h, unsigned char m, unsigned char s, unsigned char f, Timecode::FrameRate rate);
    Timecode(unsigned long tc, Timecode::FrameRate rate);

    void setLtcTimecode(unsigned long tc);
    void setTimecode(unsigned long tc, Timecode::FrameRate rate, Timecode::Status status);
    void setFrameRate(Timecode::FrameRate rate);
    void setStatus(Timecode::Status status);
    void setUserBits(unsigned long userBits);

    unsigned char getHours() const { return hours; }
    unsigned char getMinutes() const { return minutes; }
    unsigned char getSeconds() const { return seconds; }
    unsigned char getFrames() const { return frames; }
    bool isDropFrame() const { return dropFrame; }
    Timecode::FrameRate getFrameRate() const { return rate; }
    Timecode::Status getStatus() const { return status; }
    unsigned long getUserBits() const { return userBits; }

signals:
    void statusChanged(Timecode::Status status);
    void frameRateChanged(Timecode::FrameRate rate);
    void userBitsChanged(unsigned long userBits);

private:
    void splitWord(unsigned long tc);

    unsigned char hours = 0;
    unsigned char minutes = 0;
    unsigned char seconds = 0;
    unsigned char frames = 0;
    bool dropFrame = false;
    Timecode::FrameRate rate = FrameRateInvalid;
    Timecode::Status status = NoTimecode;
    unsigned long userBits = 0;
};

// Timecode arithmetic on packed words. "rate" is a frame-rate code (Timecode::FrameRate numbers);
// codes 4 and 6 count drop-frame, "sampleRate" is in samples per second and must not be 0.
namespace TC {

// Indexed by frame-rate code 0-6. The true rate of code k is fps_map[k] * m_fact[k] / r_fact[k].
extern const unsigned short fps_map[7];
extern const unsigned short r_fact[7];
extern const unsigned short m_fact[7];
extern const unsigned char df_map[7];
extern const unsigned char integerMap[7];
// Eight entries: the seventh code's text is followed by the one for FrameRateInvalid.
extern const char* const frame_rate_str[8];

unsigned long ForceValidDFVal(unsigned long tc);
bool IsDropTime(unsigned long tc);
unsigned long SamplesToTC(unsigned long long samples, unsigned long sampleRate, unsigned short rate,
    long* remainder, bool hundredths);
unsigned long SamplesToFrames(unsigned long long samples, unsigned long sampleRate, unsigned short rate);
unsigned long FramesToSamples(unsigned long frames, unsigned long sampleRate, unsigned short rate);
unsigned long TCToSamples(unsigned long tc, unsigned long sampleRate, unsigned short rate);
unsigned long FramesToTC(unsigned long frames, unsigned short rate, bool hundredths);
unsigned long TCToFrames(unsigned long tc, unsigned short rate);
void convertTimecode(unsigned long& tc, Timecode::FrameRate from, Timecode::FrameRate to);
unsigned long AddTC(unsigned long a, unsigned long b, unsigned short rate);
unsigned long SubTC(unsigned long a, unsigned long b, unsigned short rate);
Timecode::FrameRate convertVideoFrameRate(int rateHundredths, bool dropFrame);

} // namespace TC

namespace Tracks {

// The mask with the low n bits set; n is taken modulo 64, so 0 and 64 both give 0.
unsigned long long AllChannelsBitMask(int n);

} // namespace Tracks
