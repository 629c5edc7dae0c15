#include "timecode/Timecode.h"

#include <QMetaType>

namespace {

// Queued connections and QVariant need both enumerations by their qualified names.
void registerMetaTypes()
{
    static const bool registered = [] {
        qRegisterMetaType<Timecode::FrameRate>("Timecode::FrameRate");
        qRegisterMetaType<Timecode::Status>("Timecode::Status");
        return true;
    }();
    Q_UNUSED(registered);
}

// Codes 4 and 6 differ from each other only in bit 1.
bool isDropFrameRate(Timecode::FrameRate rate)
{
    return (rate & ~2) == Timecode::FrameRate2997Df;
}

} // namespace

Timecode::Timecode()
{
    registerMetaTypes();
}

Timecode::Timecode(
    unsigned char h, unsigned char m, unsigned char s, unsigned char f, Timecode::FrameRate rate)
    : hours(h)
    , minutes(m)
    , seconds(s)
    , frames(f)
    , dropFrame(isDropFrameRate(rate))
    , rate(rate)
    , status(Stopped)
{
    registerMetaTypes();
}

Timecode::Timecode(unsigned long tc, Timecode::FrameRate rate)
    : dropFrame(isDropFrameRate(rate))
    , rate(rate)
    , status(Stopped)
{
    splitWord(tc);
    registerMetaTypes();
}

void Timecode::splitWord(unsigned long tc)
{
    hours = static_cast<unsigned char>(tc >> 24);
    minutes = static_cast<unsigned char>(tc >> 16);
    seconds = static_cast<unsigned char>(tc >> 8);
    frames = static_cast<unsigned char>(tc);
}

void Timecode::setLtcTimecode(unsigned long tc)
{
    splitWord(tc);
}

// dropFrame keeps the value chosen at construction, whatever rate arrives here.
void Timecode::setTimecode(unsigned long tc, Timecode::FrameRate rate, Timecode::Status status)
{
    splitWord(tc);
    setFrameRate(rate);
    setStatus(status);
}

void Timecode::setFrameRate(Timecode::FrameRate newRate)
{
    if (newRate == rate)
        return;
    rate = newRate;
    emit frameRateChanged(rate);
}

void Timecode::setStatus(Timecode::Status newStatus)
{
    if (newStatus == status)
        return;
    status = newStatus;
    emit statusChanged(status);
}

void Timecode::setUserBits(unsigned long newUserBits)
{
    if (newUserBits == userBits)
        return;
    userBits = newUserBits;
    emit userBitsChanged(userBits);
}

namespace Tracks {

unsigned long long AllChannelsBitMask(int n)
{
    return (1ULL << (n & 63)) - 1;
}

} // namespace Tracks
