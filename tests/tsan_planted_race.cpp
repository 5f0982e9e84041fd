// A data race planted on purpose, shaped like the library's own threads: an
// int written by a QThread's run() and by a test function with nothing
// between them. Built only for the ThreadSanitizer job, which passes only if
// this race is reported: a suppression or option that hid races on the
// threads Qt starts, or in test functions, would fail that job here.
#include <QThread>
#include <QtTest>

namespace {

int g_shared = 0;

class Writer : public QThread
{
protected:
    void run() override { g_shared = 1; }
};

} // namespace

class PlantedRace : public QObject
{
    Q_OBJECT
private slots:
    void intWrittenByRunAndByTheTest()
    {
        Writer writer;
        writer.start();
        g_shared = 2;
        QVERIFY(writer.wait(5000));
        QVERIFY(g_shared == 1 || g_shared == 2);   // read, so neither write is optimised away
    }
};

QTEST_APPLESS_MAIN(PlantedRace)
#include "tsan_planted_race.moc"
