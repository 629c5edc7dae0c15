// The timecode arithmetic with arbitrary rate codes, sample rates and values. Every function is called
// with whatever the input gives (AddressSanitizer guards the rate tables, which must never be read out of
// range); the round trips are checked where they are defined: labels and frame counts within a day, and
// sample rates at which a frame is more than one sample long. Sample rates are 32-bit like every sample
// rate in the program (the WAV 'fmt ' field), and never 0.

#include "FuzzSupport.h"
#include "timecode/Timecode.h"

#include <cstdio>

namespace {

using FuzzSupport::InputReader;

const unsigned short kHighestRateCode = 6;

bool isDropCode(unsigned short rate)
{
    return rate == 4 || rate == 6;
}

unsigned long nominalFps(unsigned short rate)
{
    static const unsigned long fps[7] = { 24, 24, 25, 30, 30, 30, 30 };
    return rate <= kHighestRateCode ? fps[rate] : 100;
}

// Frames in a day: 29.97 drop-frame counting drops 2 labels in 54 of every 60 minutes.
unsigned long framesPerDay(unsigned short rate)
{
    return rate <= kHighestRateCode && isDropCode(rate) ? 24UL * 107892 : 86400UL * nominalFps(rate);
}

// A valid label at this rate from arbitrary field bytes.
unsigned long validLabel(InputReader& in, unsigned short rate)
{
    const unsigned long h = in.u8() % 24;
    const unsigned long m = in.u8() % 60;
    const unsigned long s = in.u8() % 60;
    unsigned long f = in.u8() % nominalFps(rate);
    if (rate <= kHighestRateCode && isDropCode(rate) && s == 0 && m % 10 != 0 && f < 2)
        f += 2; // the labels drop-frame counting skips
    return (h << 24) | (m << 16) | (s << 8) | f;
}

void check(bool holds, const char* what, unsigned long a, unsigned long b, unsigned long rate)
{
    if (holds)
        return;
    char text[200];
    std::snprintf(text, sizeof text, "%s (values 0x%lx, 0x%lx, rate %lu)", what, a, b, rate);
    FuzzSupport::fail(text);
}

// Every function once with raw values: only memory safety and the absence of undefined behaviour count.
void callWithRawValues(InputReader& in)
{
    const unsigned short rate = in.u16();
    unsigned long sampleRate = in.u32();
    if (sampleRate == 0)
        sampleRate = 1;
    const unsigned long long samples = in.u64();
    const unsigned long word = in.u64();
    const unsigned long other = in.u64();
    const bool hundredths = in.u8() & 1;
    long remainder = 0;

    TC::ForceValidDFVal(word);
    TC::IsDropTime(word);
    TC::SamplesToTC(samples, sampleRate, rate, &remainder, hundredths);
    TC::SamplesToFrames(samples, sampleRate, rate);
    TC::FramesToSamples(word, sampleRate, rate);
    TC::TCToSamples(word, sampleRate, rate);
    TC::FramesToTC(word, rate, hundredths);
    TC::TCToFrames(word, rate);
    TC::AddTC(word, other, rate);
    TC::SubTC(word, other, rate);
    TC::convertVideoFrameRate(int(in.u32()), in.u8() & 1);
    Tracks::AllChannelsBitMask(int(in.u32()));

    // Any frame-rate code the enumeration can hold (it spans 0-255).
    unsigned long converted = word;
    const auto from = static_cast<Timecode::FrameRate>(in.u8());
    const auto to = static_cast<Timecode::FrameRate>(in.u8());
    TC::convertTimecode(converted, from, to);
    check((converted & ~0xFFUL) == (word & ~0xFFUL), "convertTimecode changed more than the frames byte",
        word, converted, from);
}

// A valid label and a valid duration: addition and subtraction undo each other and wrap at 24 hours.
void checkAddAndSubtract(unsigned long a, unsigned long b, unsigned short rate)
{
    const unsigned long sum = TC::AddTC(a, b, rate);
    check(sum <= 0x17FFFFFFUL, "AddTC left the day", a, b, rate);
    check(TC::SubTC(sum, b, rate) == a, "SubTC did not undo AddTC", a, b, rate);
    const unsigned long difference = TC::SubTC(a, b, rate);
    check(difference <= 0x17FFFFFFUL, "SubTC left the day", a, b, rate);
    check(TC::AddTC(difference, b, rate) == a, "AddTC did not undo SubTC", a, b, rate);
}

// FramesToTC knows no unknown code; TCToFrames counts hundredths of a second there.
void checkUnknownCode(InputReader& in, unsigned long a, unsigned short rate)
{
    check(TC::FramesToTC(in.u32(), rate, false) == 0, "FramesToTC gave a label for an unknown code", 0, 0,
        rate);
    const unsigned long frames = TC::TCToFrames(a, rate);
    check(frames == (((a >> 24) * 3600 + ((a >> 16) & 0xFF) * 60 + ((a >> 8) & 0xFF)) * 100 + (a & 0xFF)),
        "TCToFrames did not count hundredths for an unknown code", a, frames, rate);
}

// Labels and frame counts: every frame of the day has one label (frame `n` has `label`), and it counts back
// to the frame; the valid label `a` counts to the frame FramesToTC labels `a`.
void checkLabelsAndFrames(unsigned long a, unsigned long n, unsigned long label, unsigned short rate)
{
    const unsigned long day = framesPerDay(rate);
    check(TC::TCToFrames(label, rate) == n, "TCToFrames did not invert FramesToTC", n, label, rate);
    check(TC::FramesToTC(TC::TCToFrames(a, rate), rate, false) == a, "FramesToTC did not invert TCToFrames",
        a, 0, rate);
    // One frame on and one frame back, as drop-frame counting labels them.
    const unsigned long frameA = TC::TCToFrames(a, rate);
    check(TC::AddTC(a, 1, rate) == TC::FramesToTC((frameA + 1) % day, rate, false), "AddTC of one frame", a,
        1, rate);
    check(TC::SubTC(a, 1, rate) == TC::FramesToTC((frameA + day - 1) % day, rate, false),
        "SubTC of one frame", a, 1, rate);
}

// Whether a frame at this known rate code spans more than one sample at `sampleRate`.
bool frameSpansSamples(unsigned long sampleRate, unsigned short rate)
{
    const unsigned long long frameTimesRate = static_cast<unsigned long long>(sampleRate)
        * (rate == 0 || rate == 3 ? 1001
                : rate == 4       ? 1000
                                  : 1);
    const unsigned long fps = nominalFps(rate);
    const unsigned long long fpsTimesM = fps * (rate == 0 || rate == 3 ? 1000 : rate == 4 ? 999 : 1);
    return frameTimesRate > fpsTimesM;
}

// The label SamplesToTC gives the samples of the frame FramesToTC labels `label`: the last two frames before
// a dropping minute (59;28 and 59;29) like the first two of that minute (00;02 and 00;03); every other frame
// as FramesToTC does.
unsigned long samplesLabel(unsigned long label, bool drop)
{
    const unsigned long minute = (label >> 16) & 0xFF;
    if (drop && (label & 0xFF00) == 0x3B00 && (label & 0xFF) >= 28 && (minute + 1) % 10 != 0)
        return (label & 0xFF000000UL) | ((minute + 1) << 16) | ((label & 0xFF) - 26);
    return label;
}

// Samples: at a sample rate where a frame spans more than one sample, the samples of frame `n` (labelled
// `label`) map back to it.
void checkSamples(InputReader& in, unsigned long n, unsigned long label, unsigned short rate, bool drop)
{
    unsigned long sampleRate = in.u32() % 16000000 + 1;
    if (!frameSpansSamples(sampleRate, rate))
        return;
    const unsigned long samplesOfN = TC::FramesToSamples(n, sampleRate, rate);
    if (n == 0)
        return;
    check(TC::SamplesToFrames(samplesOfN, sampleRate, rate) == n,
        "SamplesToFrames did not invert FramesToSamples", n, samplesOfN, rate);
    check(TC::TCToSamples(label, sampleRate, rate) == samplesOfN, "TCToSamples and FramesToSamples differ", n,
        label, rate);
    long remainder = -1;
    const unsigned long fromSamples = TC::SamplesToTC(samplesOfN, sampleRate, rate, &remainder, false);
    check(remainder >= 0 && static_cast<unsigned long>(remainder) <= samplesOfN, "SamplesToTC remainder", n,
        static_cast<unsigned long>(remainder), rate);
    check(fromSamples == samplesLabel(label, drop), "SamplesToTC did not label the frame of its samples", n,
        fromSamples, rate);
}

void checkRoundTrips(InputReader& in)
{
    const unsigned short rate = in.u8() % 8 == 7 ? in.u16() : in.u8() % 7; // mostly the seven known codes
    const unsigned long a = validLabel(in, rate);
    const unsigned long b = validLabel(in, rate);
    const bool drop = rate <= kHighestRateCode && isDropCode(rate);
    if (!drop)
        checkAddAndSubtract(a, b, rate);
    if (rate > kHighestRateCode)
        return checkUnknownCode(in, a, rate);
    const unsigned long n = in.u32() % framesPerDay(rate);
    const unsigned long label = TC::FramesToTC(n, rate, false);
    checkLabelsAndFrames(a, n, label, rate);
    checkSamples(in, n, label, rate, drop);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzSupport::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    InputReader in(data, size);
    callWithRawValues(in);
    checkRoundTrips(in);
    return 0;
}
