#pragma once

// SIGINT, SIGTERM and SIGHUP held off for as long as this lives. A program started meanwhile still ends
// on them (it starts with the default handling); this one notes the signal, for the case to stop and
// clean up, and ends on it when this goes. Case 8 holds them while it has a file system mounted, so
// that an interrupted run still unmounts it.
class HeldSignals
{
public:
    HeldSignals();
    ~HeldSignals();
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;

    static bool arrived();
};
