// Feeds arbitrary bytes to the labels reader as the content of a file (the
// reader takes a path, so the bytes go into an in-memory file reached
// through /proc/self/fd). Whatever the reader accepts, the writer must turn
// into a file the reader accepts again, with the same number of modules -
// for the models a caller may hand the writer: headings for every counted
// column and no negative numbers (those are written "0x-1f" and read as 0).

#include "LabelsFile.h"

#include <QString>
#include <QtGlobal>

#include <cstdint>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace {

int g_input = -1;
int g_output = -1;

void quiet(QtMsgType, const QMessageLogContext &, const QString &) {}

QString pathOf(int fd)
{
    return QStringLiteral("/proc/self/fd/%1").arg(fd);
}

bool fill(int fd, const uint8_t *data, size_t size)
{
    if (ftruncate(fd, 0) != 0)
        return false;
    size_t done = 0;
    while (done < size) {
        const ssize_t n = pwrite(fd, data + done, size - done, off_t(done));
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

bool writable(const QList<FunctionRecord> &functions, const QPair<qint32, qint32> &numbers)
{
    if (numbers.first < 0 || numbers.second < 0)
        return false;
    for (const FunctionRecord &f : functions) {
        if (f.id < 0)
            return false;
        for (const SubFunctionRecord &s : f.subFunctions) {
            if (s.displaySize < 0 || s.displaySize > s.subItems.size())
                return false;
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    qInstallMessageHandler(quiet); // every bad input logs a line otherwise
    g_input = memfd_create("labels-in", 0);
    g_output = memfd_create("labels-out", 0);
    if (g_input < 0 || g_output < 0)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (!fill(g_input, data, size))
        abort();
    LabelsFile in;
    if (!in.readFile(pathOf(g_input)))
        return 0;
    const QList<FunctionRecord> functions = in.getFunctions();
    const QPair<qint32, qint32> numbers = in.getVersionAndSize();
    if (!writable(functions, numbers))
        return 0;
    if (ftruncate(g_output, 0) != 0)
        abort();
    LabelsFile writer;
    if (!writer.writeFile(pathOf(g_output), functions, numbers.first, numbers.second))
        abort();
    LabelsFile again;
    if (!again.readFile(pathOf(g_output)) || again.getFunctions().size() != functions.size()
        || again.getVersionAndSize() != numbers)
        abort();
    return 0;
}
