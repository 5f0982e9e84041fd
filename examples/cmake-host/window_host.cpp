// A C++ host with both public headers: it drives a controller through the
// C interface and shows the window with one display panel on it.
// Usage: window_host CONTROLLER_ADDRESS   (QT_QPA_PLATFORM=offscreen without a display)
// Exit status 0 when every check passed.
#include "velmora.h"
#include "VelmoraWindow.h"

#include <QApplication>
#include <QThread>
#include <QTimer>

#include <cstdio>
#include <cstring>

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: window_host CONTROLLER_ADDRESS\n");
        return 2;
    }
    QApplication app(argc, argv);
    int failures = 0;
    auto check = [&failures](bool ok, const char *what) {
        if (!ok) {
            std::fprintf(stderr, "window_host: check failed: %s\n", what);
            ++failures;
        }
    };

    std::printf("Velmora %s (header %s)\n", velmoraVersion(), VELMORA_VERSION_STRING);
    check(std::strcmp(velmoraVersion(), VELMORA_VERSION_STRING) == 0, "library version == header version");
#ifdef VELMORA_PACKAGE_VERSION
    check(std::strcmp(velmoraVersion(), VELMORA_PACKAGE_VERSION) == 0, "library version == package version");
#endif

    // The C interface, by its plain names.
    char *address = argv[1];
    long int variable = 1000010, value = 1234, back = 0;
    check(addTargetCnc(1, 1, address, 0), "addTargetCnc");
    bool connected = false;
    for (int i = 0; i < 100 && !connected; ++i) {   // a simulator just started needs a moment
        connected = connect(1);
        if (!connected)
            QThread::msleep(50);
    }
    check(connected, "connect");
    check(writeVars(&variable, 1, &value, 1) == 0, "writeVars");
    check(readVars(&variable, 1, &back, 1) == 0 && back == 1234, "readVars gives the value written");
    std::printf("reading controller 2: %s\n", velmoraStatusText(CheckTcpWdt(2)));
    check(removeTargetCnc(1), "removeTargetCnc");

    // The window, with one panel on the same controller for a few refreshes.
    Velmora window;
    window.setCncIp(QString::fromLocal8Bit(address));
    window.resize(800, 500);
    window.show();
    window.addSplitForm_clicked();
    QTimer::singleShot(700, &app, &QApplication::quit);
    app.exec();
    check(window.isVisible(), "the window is shown");

    std::printf(failures == 0 ? "window_host: all checks passed\n" : "window_host: checks failed\n");
    return failures == 0 ? 0 : 1;
}
