// clipward-bench: makes the benchmark's inputs with the recording simulator, runs every case side by side
// with its baseline, and prints the medians and ratios. bench/run.sh builds and starts it.
//
//     clipward-bench run --work DIR [--reps N] [--keep]
//     clipward-bench floor RECORDING MAP_POS INDEX_BYTES OUTPUT     (one run of the floor; see Floor.h)

#include "Cases.h"
#include "Floor.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char* argv[])
{
    // The floor runs without the application object: it is plain stdio, as its baseline should be.
    if (argc == 6 && std::strcmp(argv[1], "floor") == 0)
        return runFloor(argv[2], std::atoll(argv[3]), std::atoll(argv[4]), argv[5]);

    QCoreApplication app(argc, argv);
    QStringList args = QCoreApplication::arguments().mid(1);
    BenchOptions options;
    if (args.value(0) != "run") {
        std::fprintf(stderr, "usage: clipward-bench run --work DIR [--reps N] [--keep]\n");
        return 2;
    }
    for (int i = 1; i < args.size(); ++i) {
        if (args[i] == "--work" && i + 1 < args.size())
            options.work = args[++i];
        else if (args[i] == "--reps" && i + 1 < args.size())
            options.reps = qMax(1, args[++i].toInt());
        else if (args[i] == "--keep")
            options.keep = true;
        else {
            std::fprintf(stderr, "clipward-bench: unknown argument %s\n", qPrintable(args[i]));
            return 2;
        }
    }
    if (options.work.isEmpty()) {
        std::fprintf(stderr, "clipward-bench: give --work DIR\n");
        return 2;
    }
    options.self = QCoreApplication::applicationFilePath();
    return runBenchmarks(options);
}
