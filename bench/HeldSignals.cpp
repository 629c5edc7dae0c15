#include "HeldSignals.h"

#include <csignal>

namespace {

const int kHeldSignals[] = { SIGINT, SIGTERM, SIGHUP };
const int kHeldCount = int(sizeof(kHeldSignals) / sizeof(kHeldSignals[0]));
struct sigaction g_previous[kHeldCount];
volatile std::sig_atomic_t g_arrived = 0;

extern "C" void noteSignal(int signal)
{
    g_arrived = signal;
}

} // namespace

HeldSignals::HeldSignals()
{
    g_arrived = 0;
    struct sigaction action {};
    action.sa_handler = noteSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < kHeldCount; ++i) {
        sigaction(kHeldSignals[i], &action, &g_previous[i]);
        // A signal this program was told to ignore stays ignored, also by the programs it starts.
        if (g_previous[i].sa_handler == SIG_IGN)
            sigaction(kHeldSignals[i], &g_previous[i], nullptr);
    }
}

HeldSignals::~HeldSignals()
{
    for (int i = 0; i < kHeldCount; ++i)
        sigaction(kHeldSignals[i], &g_previous[i], nullptr);
    if (g_arrived != 0)
        std::raise(g_arrived);
}

bool HeldSignals::arrived()
{
    return g_arrived != 0;
}
