// SPDX-License-Identifier: Apache-2.0
#include "agent/command_line.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

#include "vorn/settings.h"

namespace vexagent {
namespace {

constexpr char kUsage[] =
    "Usage: vexagent [--config FILE] [--check]\n"
    "Serves the directory to programs of this host.\n"
    "\n"
    "  --config FILE  read the settings from FILE\n"
    "  --check        check the settings and the directory, and serve nothing\n"
    "  --help         show this text\n"
    "  --version      show the version\n"
    "\n"
    "The settings:\n";

void printUsage() {
    std::fputs(kUsage, stdout);
    for (const vorn::Setting& setting : vorn::knownSettings())
        std::printf("  %-22s %s%s%s%s\n", setting.name, setting.meaning,
                    *setting.defaultValue != '\0' ? " (" : "", setting.defaultValue,
                    *setting.defaultValue != '\0' ? ")" : "");
}

}  // namespace

Options parseOptions(int count, char** words) {
    static const option kOptions[] = {{"config", required_argument, nullptr, 'c'},
                                      {"check", no_argument, nullptr, 'k'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {"version", no_argument, nullptr, 'v'},
                                      {nullptr, 0, nullptr, 0}};
    Options options;
    opterr = 0;
    for (int letter = 0; (letter = getopt_long(count, words, ":", kOptions, nullptr)) != -1;) {
        switch (letter) {
            case 'c':
                options.config = optarg;
                break;
            case 'k':
                options.check = true;
                break;
            case 'h':
                printUsage();
                std::exit(0);
            case 'v':
                std::puts("vexagent " VEXAGENT_VERSION);
                std::exit(0);
            case ':':
                std::fprintf(stderr, "vexagent: %s needs a value; try --help\n", words[optind - 1]);
                std::exit(kBadUsage);
            default:
                std::fprintf(stderr, "vexagent: unknown option %s; try --help\n", words[optind - 1]);
                std::exit(kBadUsage);
        }
    }
    if (optind < count) {
        std::fprintf(stderr, "vexagent: unexpected word \"%s\"; try --help\n", words[optind]);
        std::exit(kBadUsage);
    }
    return options;
}

}  // namespace vexagent
