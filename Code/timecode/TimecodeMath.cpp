// Timecode arithmetic on packed words: conversions between samples, frames and timecode labels, and
// addition and subtraction with wrap at 24 hours. All divisions truncate and are done in 64 bits.

#include "timecode/Timecode.h"

namespace TC {

const unsigned short fps_map[7] = { 24, 24, 25, 30, 30, 30, 30 };
// 29.97 drop-frame runs at exactly 30 * 999 / 1000, unlike 29.97 non-drop and 23.976 (1000 / 1001).
const unsigned short r_fact[7] = { 1001, 1, 1, 1001, 1000, 1, 1 };
const unsigned short m_fact[7] = { 1000, 1, 1, 1000, 999, 1, 1 };
const unsigned char df_map[7] = { 0, 0, 0, 0, 1, 0, 1 };
const unsigned char integerMap[7] = { 0, 1, 1, 0, 0, 1, 1 };
const char* const frame_rate_str[8] = { "23.976", "24", "25", "29.97ND", "29.97DF", "30", "30 DF", "No TC" };

} // namespace TC

namespace {

const unsigned short kHighestRateCode = 6;
// Unknown codes count hundredths of a second with the factors of code 5 (r = m = 1).
const unsigned short kHundredthsPerSecond = 100;
const unsigned short kHundredthsFactorIndex = 5;

// 29.97 drop-frame counting, used by codes 4 and 6 alike: two labels skipped at the start of every
// minute except each tenth minute.
const unsigned long kDropFramesPerHour = 107892;
const unsigned long kDropFramesPerTenMinutes = 17980;
const unsigned long kDropFramesPerMinute = 1798;
const unsigned long kDropFramesPerSecond = 30;

// Field steps of the packed word: subtracting 60 from a field and carrying one into the next is the
// same as adding these (0x100 - 0x3C shifted into place).
const unsigned long kSecondsCarry = 0xC400;
const unsigned long kMinutesCarry = 0xC40000;
const unsigned long kOneDay = 0x18000000;

unsigned long hoursOf(unsigned long tc)
{
    return (tc >> 24) & 0xFF;
}

unsigned long minutesOf(unsigned long tc)
{
    return (tc >> 16) & 0xFF;
}

unsigned long secondsOf(unsigned long tc)
{
    return (tc >> 8) & 0xFF;
}

unsigned long framesOf(unsigned long tc)
{
    return tc & 0xFF;
}

unsigned long pack(unsigned long hours, unsigned long minutes, unsigned long seconds, unsigned long frames)
{
    return ((hours & 0xFF) << 24) | ((minutes & 0xFF) << 16) | ((seconds & 0xFF) << 8) | (frames & 0xFF);
}

bool isDropCode(unsigned long code)
{
    return (code & 0xFFFD) == 4;
}

// A label that drop-frame counting never produces: frames 0 or 1 at second 0 of a non-tenth minute.
bool isDroppedLabel(unsigned long minutes, unsigned long seconds, unsigned long frames)
{
    return frames <= 1 && seconds == 0 && minutes % 10 != 0;
}

struct Label
{
    unsigned long hours;
    unsigned long minutes;
    unsigned long seconds;
    unsigned long frames;
};

Label splitNonDrop(unsigned long long frameCount, unsigned long fps)
{
    const unsigned long long totalSeconds = frameCount / fps;
    Label label;
    label.frames = static_cast<unsigned long>(frameCount - fps * totalSeconds);
    label.hours = static_cast<unsigned long>(totalSeconds / 3600);
    const unsigned long long inHour = totalSeconds - (label.hours & 0xFF) * 3600ULL;
    label.minutes = static_cast<unsigned long>(inHour / 60);
    label.seconds = static_cast<unsigned long>(inHour - (label.minutes & 0xFF) * 60ULL);
    return label;
}

// Splits a frame count without repairing the labels that drop-frame counting skips; the two callers
// repair them differently.
Label splitDrop(unsigned long long frameCount)
{
    Label label;
    label.hours = static_cast<unsigned long>(frameCount / kDropFramesPerHour);
    const unsigned long r
        = static_cast<unsigned long>(frameCount - (label.hours & 0xFF) * kDropFramesPerHour);
    const unsigned long rDropped = r - 2 * (r / kDropFramesPerTenMinutes);
    label.minutes = rDropped / kDropFramesPerMinute;
    const unsigned long q
        = r - kDropFramesPerMinute * label.minutes - 2 * (rDropped / kDropFramesPerTenMinutes);
    label.seconds = q / kDropFramesPerSecond;
    label.frames = q % kDropFramesPerSecond;
    return label;
}

unsigned long packLabel(const Label& label)
{
    return pack(label.hours, label.minutes, label.seconds, label.frames);
}

unsigned long normaliseAfterAdd(unsigned long v, unsigned long fps)
{
    if (framesOf(v) >= fps)
        v += 0x100 - fps;
    if ((v & 0xFF00) >= 0x3C00)
        v += kSecondsCarry;
    if ((v & 0xFF0000) >= 0x3C0000)
        v += kMinutesCarry;
    if ((v & 0xF8000000) >= kOneDay)
        v -= kOneDay;
    return v;
}

// A field that borrowed reads 0xFF.. and so is caught by the same tests as an overflowing one.
unsigned long normaliseAfterSub(unsigned long v, unsigned long fps)
{
    if (framesOf(v) >= fps)
        v -= 0x100 - fps;
    if ((v & 0xFF00) >= 0x3C00)
        v -= kSecondsCarry;
    if ((v & 0xFF0000) >= 0x3C0000)
        v -= kMinutesCarry;
    // Below midnight the word has borrowed through bit 31; adding a day carries back out of it.
    if ((v & 0xF8000000) >= kOneDay)
        v += kOneDay;
    return v;
}

unsigned long nominalFps(unsigned short rate)
{
    return rate <= kHighestRateCode ? TC::fps_map[rate] : kHundredthsPerSecond;
}

} // namespace

namespace TC {

unsigned long ForceValidDFVal(unsigned long tc)
{
    if (isDroppedLabel(minutesOf(tc), secondsOf(tc), framesOf(tc)))
        return tc + 2;
    return tc;
}

bool IsDropTime(unsigned long tc)
{
    return secondsOf(tc) == 0 && minutesOf(tc) % 10 != 0;
}

unsigned long SamplesToTC(unsigned long long samples, unsigned long sampleRate, unsigned short rate,
    long* remainder, bool hundredths)
{
    if (samples == 0) {
        if (remainder)
            *remainder = 0;
        return 0;
    }
    unsigned short k = kHundredthsFactorIndex;
    unsigned long long fps = kHundredthsPerSecond;
    if (rate <= kHighestRateCode && !hundredths) {
        k = rate;
        fps = fps_map[rate];
    }
    const unsigned long long frames = (m_fact[k] * fps * samples) / (r_fact[k] * sampleRate);
    if (remainder)
        *remainder = static_cast<long>(samples - (r_fact[k] * sampleRate * frames) / (m_fact[k] * fps));

    if (!isDropCode(k))
        return packLabel(splitNonDrop(frames, static_cast<unsigned long>(fps)));

    // Unlike FramesToTC, a skipped label moves forward to the first real one of the same second, so
    // the last two frames of such a minute carry the same labels as the first two of the next.
    Label label = splitDrop(frames);
    if (isDroppedLabel(label.minutes, label.seconds, label.frames))
        label.frames += 2;
    return packLabel(label);
}

unsigned long SamplesToFrames(unsigned long long samples, unsigned long sampleRate, unsigned short rate)
{
    if (samples == 0 || rate > kHighestRateCode)
        return 0;
    return static_cast<unsigned long>(fps_map[rate] * samples * m_fact[rate]
        / (r_fact[rate] * static_cast<unsigned long long>(sampleRate)));
}

// The extra sample places the result inside the frame rather than on a boundary rounded down.
unsigned long FramesToSamples(unsigned long frames, unsigned long sampleRate, unsigned short rate)
{
    if (frames == 0 || rate > kHighestRateCode)
        return 0;
    const unsigned long long numerator = static_cast<unsigned long long>(sampleRate) * frames * r_fact[rate];
    return static_cast<unsigned long>(
        numerator / (m_fact[rate] * static_cast<unsigned long long>(fps_map[rate])) + 1);
}

unsigned long TCToSamples(unsigned long tc, unsigned long sampleRate, unsigned short rate)
{
    if (tc == 0)
        return 0;
    const unsigned short k = rate <= kHighestRateCode ? rate : kHundredthsFactorIndex;
    const unsigned long long frames = TCToFrames(tc, rate);
    const unsigned long long numerator = frames * sampleRate * r_fact[k];
    return static_cast<unsigned long>(
        numerator / (m_fact[k] * static_cast<unsigned long long>(nominalFps(rate))) + 1);
}

unsigned long FramesToTC(unsigned long frames, unsigned short rate, bool hundredths)
{
    // An unknown code has no row in the rate tables and so no label: 0.
    if (frames == 0 || rate > kHighestRateCode)
        return 0;
    const unsigned long fps = fps_map[rate];
    Label label;
    if (isDropCode(rate)) {
        label = splitDrop(frames);
        // A skipped label stands for the last frames of the previous minute.
        if (isDroppedLabel(label.minutes, label.seconds, label.frames)) {
            label.frames += 28;
            label.minutes -= 1;
            label.seconds = 59;
        }
    } else {
        label = splitNonDrop(frames, fps);
    }
    if (hundredths)
        label.frames = label.frames * 100 / fps;
    return packLabel(label);
}

unsigned long TCToFrames(unsigned long tc, unsigned short rate)
{
    if (tc == 0)
        return 0;
    const unsigned long h = hoursOf(tc);
    const unsigned long m = minutesOf(tc);
    const unsigned long s = secondsOf(tc);
    const unsigned long fr = framesOf(tc);
    if (rate <= kHighestRateCode && isDropCode(rate)) {
        // (m / 5) & 62 is 2 * (m / 10): the labels skipped before this minute in earlier tenth minutes.
        return s * kDropFramesPerSecond + h * kDropFramesPerHour + m * kDropFramesPerMinute + ((m / 5) & 62)
            + fr;
    }
    return (m * 60 + s + h * 3600) * nominalFps(rate) + fr;
}

void convertTimecode(unsigned long& tc, Timecode::FrameRate from, Timecode::FrameRate to)
{
    // Unknown codes have no nominal rate to scale by: the word is left as it is.
    if (from > kHighestRateCode || to > kHighestRateCode)
        return;
    const unsigned long frames = framesOf(tc);
    if (frames == 0 || from == to)
        return;
    const int product = static_cast<int>(fps_map[to] * frames);
    const double scaled = static_cast<double>(product) / fps_map[from];
    const int rounded = static_cast<int>(scaled + 0.5); // half up; never negative for a frames byte
    tc = (tc & ~0xFFUL) | (static_cast<unsigned long>(rounded) & 0xFF);
}

unsigned long AddTC(unsigned long a, unsigned long b, unsigned short rate)
{
    const unsigned long fps = nominalFps(rate);
    const bool drop = rate <= kHighestRateCode && isDropCode(rate);
    unsigned long v = normaliseAfterAdd(a + b, fps);
    // Entering a non-tenth minute lands on a skipped label; step over it once.
    if (drop && minutesOf(v) != minutesOf(a) && minutesOf(v) % 10 != 0)
        v = normaliseAfterAdd(v + 2, fps);
    return v;
}

unsigned long SubTC(unsigned long a, unsigned long b, unsigned short rate)
{
    if (b == 0)
        return a;
    const unsigned long fps = nominalFps(rate);
    const bool drop = rate <= kHighestRateCode && isDropCode(rate);
    unsigned long v = normaliseAfterSub(a - b, fps);
    if (!drop)
        return v;
    const unsigned long minutesA = minutesOf(a);
    const unsigned long minutesR = minutesOf(v);
    if (minutesR != minutesA && minutesA % 10 != 0)
        return normaliseAfterSub(v - 2, fps); // left a minute that had skipped its first two labels
    if (isDroppedLabel(minutesR, secondsOf(v), framesOf(v)))
        return normaliseAfterSub(pack(hoursOf(v), minutesR, 0, framesOf(v)) - 2, fps);
    return v;
}

Timecode::FrameRate convertVideoFrameRate(int rateHundredths, bool dropFrame)
{
    if (rateHundredths == 0)
        return Timecode::FrameRateInvalid;
    // 50, 59.94 and 60 fps share the codes of their half rates.
    if (rateHundredths >= 3001)
        rateHundredths /= 2;
    switch (rateHundredths) {
    case 2400:
        return Timecode::FrameRate24;
    case 2500:
        return Timecode::FrameRate25;
    case 2997:
        return dropFrame ? Timecode::FrameRate2997Df : Timecode::FrameRate2997;
    case 3000:
        return dropFrame ? Timecode::FrameRate30Df : Timecode::FrameRate30;
    default:
        break;
    }
    // Everything slower, 2397 and 2398 among them, is taken for 23.976.
    return rateHundredths < 2400 ? Timecode::FrameRate23976 : Timecode::FrameRateInvalid;
}

} // namespace TC
