// velmora-cli: one controller, one command, through the public C interface.
//   velmora-cli [-v] ADDRESS wdt
//   velmora-cli [-v] ADDRESS read ADDR...
//   velmora-cli [-v] ADDRESS write ADDR=VAL...
//   velmora-cli [-v] ADDRESS reset CH
//   velmora-cli [-v] ADDRESS start CH FILE
//   velmora-cli [-v] ADDRESS upload CH TYPE NAME FILE
//   velmora-cli [-v] ADDRESS errors SELECTOR
//   velmora-cli [-v] ADDRESS running CH
// Prints results and the status of each call; exits 0 when every status is 0.
#include "velmora.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

const int kCncID = 1;

int usage()
{
    std::fprintf(stderr,
                 "usage: velmora-cli [-v] ADDRESS COMMAND\n"
                 "  wdt                        watchdog probe\n"
                 "  read ADDR...               read variables\n"
                 "  write ADDR=VAL...          write variables\n"
                 "  reset CH                   reset a channel\n"
                 "  start CH FILE              start a program\n"
                 "  upload CH TYPE NAME FILE   copy a local FILE into DNC memory as NAME\n"
                 "  errors SELECTOR            current (10*ch) or history (10*ch+1) error file\n"
                 "  running CH                 name of the program running on a channel\n"
                 "  -v                         show the library's diagnostic lines\n");
    return 2;
}

bool toLong(const std::string &text, long int *out)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    const long int v = std::strtol(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0')
        return false;
    *out = v;
    return true;
}

int report(const char *what, long int status)
{
    std::printf("%s: %ld\n", what, status);
    return status == 0 ? 0 : 1;
}

int run(const std::vector<std::string> &args)
{
    const std::string &command = args[0];
    if (command == "wdt" && args.size() == 1)
        return report("CheckTcpWdt", CheckTcpWdt(kCncID));

    if (command == "read" && args.size() >= 2) {
        std::vector<long int> addresses, values(args.size() - 1, 0);
        for (size_t i = 1; i < args.size(); ++i) {
            long int a = 0;
            if (!toLong(args[i], &a))
                return usage();
            addresses.push_back(a);
        }
        const long int status = readVars(addresses.data(), int(addresses.size()), values.data(), kCncID);
        if (status == 0)
            for (size_t i = 0; i < addresses.size(); ++i)
                std::printf("%ld = %ld\n", addresses[i], values[i]);
        return report("readVars", status);
    }

    if (command == "write" && args.size() >= 2) {
        std::vector<long int> addresses, values;
        for (size_t i = 1; i < args.size(); ++i) {
            const size_t eq = args[i].find('=');
            long int a = 0, v = 0;
            if (eq == std::string::npos || !toLong(args[i].substr(0, eq), &a) || !toLong(args[i].substr(eq + 1), &v))
                return usage();
            addresses.push_back(a);
            values.push_back(v);
        }
        return report("writeVars", writeVars(addresses.data(), int(addresses.size()), values.data(), kCncID));
    }

    long int channel = 0;
    if (command == "reset" && args.size() == 2 && toLong(args[1], &channel))
        return report("reset", reset(channel, kCncID));

    if (command == "start" && args.size() == 3 && toLong(args[1], &channel)) {
        std::string name = args[2];
        return report("cycStart", cycStart(channel, &name[0], kCncID));
    }

    long int type = 0;
    if (command == "upload" && args.size() == 5 && toLong(args[1], &channel) && toLong(args[2], &type)) {
        std::ifstream file(args[4], std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "velmora-cli: cannot read %s\n", args[4].c_str());
            return 2;
        }
        std::ostringstream content;
        content << file.rdbuf();
        std::string text = content.str();
        std::string name = args[3];
        return report("uploadFile", uploadFile(type, channel, &name[0], &text[0], kCncID));
    }

    long int selector = 0;
    if (command == "errors" && args.size() == 2 && toLong(args[1], &selector)) {
        const char *text = getCncCurrentError(selector, kCncID);
        if (!text)
            return report("getCncCurrentError", 1);
        // The first character is the status digit, the file follows.
        std::printf("%s\n", text[0] ? text + 1 : "");
        return report("getCncCurrentError", text[0] ? text[0] - '0' : 1);
    }

    if (command == "running" && args.size() == 2 && toLong(args[1], &channel)) {
        const char *name = getRuningPrg(int(channel), kCncID);
        if (!name)
            return report("getRuningPrg", 1);
        // "o" alone is the no-reply status carried as a character.
        std::printf("%s\n", name);
        return report("getRuningPrg", std::strcmp(name, "o") == 0 ? 111 : 0);
    }
    return usage();
}

} // namespace

int main(int argc, char **argv)
{
    int first = 1;
    bool verbose = false;
    if (argc > 1 && std::strcmp(argv[1], "-v") == 0) {
        verbose = true;
        ++first;
    }
    if (argc - first < 2)
        return usage();
    // The library's diagnostics go to the debug stream; keep the output to
    // results unless asked.
    if (!verbose)
        setenv("QT_LOGGING_RULES", "default.debug=false", 0);

    std::string address = argv[first];
    std::vector<std::string> args(argv + first + 1, argv + argc);
    if (!addTargetCnc(kCncID, 1, &address[0], 0))
        return 2;
    if (!connect(kCncID)) {
        std::fprintf(stderr, "velmora-cli: cannot connect to %s:60000\n", address.c_str());
        removeTargetCnc(kCncID);
        return 3;
    }
    const int rc = run(args);
    disconnect(kCncID);
    removeTargetCnc(kCncID);
    return rc;
}
