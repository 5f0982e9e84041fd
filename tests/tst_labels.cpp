#include "../display/LabelsFile.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

class tst_labels : public QObject
{
    Q_OBJECT

private slots:
    void numbers_data();
    void numbers();
    void sampleFile();
    void sampleRoundTrip();
    void modelRoundTrip();
    void writerLayout();
    void readerStructure();
    void badInput_data();
    void badInput();
    void unopenablePaths();

private:
    QString put(const QByteArray &bytes);
    QTemporaryDir dir;
    int serial = 0;
};

QString tst_labels::put(const QByteArray &bytes)
{
    const QString path = dir.filePath(QStringLiteral("labels%1.xml").arg(++serial));
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(path));
    return path;
}

static QString samplePath()
{
    return qEnvironmentVariable("VELMORA_SOURCE_DIR", QStringLiteral(".")) + "/display/Velmora.xml";
}

static QByteArray readAll(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void tst_labels::numbers_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<qint32>("value");
    QTest::newRow("prefixed") << "0x1f" << 31;
    QTest::newRow("bare") << "1f" << 31;
    QTest::newRow("bare letters") << "abc" << 0xabc;
    QTest::newRow("not hex") << "zz" << 0;
    QTest::newRow("empty") << "" << 0;
    QTest::newRow("prefix alone") << "0x" << 0;
    QTest::newRow("prefix twice") << "0x0x1f" << 0;
    QTest::newRow("too wide") << "0x1ffffffff" << 0;
    QTest::newRow("largest") << "0x7fffffff" << 0x7fffffff;
}

void tst_labels::numbers()
{
    QFETCH(QString, text);
    QFETCH(qint32, value);
    QCOMPARE(LabelsFile::parseNumber(text), value);
    if (value > 0)
        QCOMPARE(LabelsFile::parseNumber(LabelsFile::numberText(value)), value);
}

// The shipped file must be usable by the display: known address areas with
// offsets inside the variable range, parallel lists and a heading per column.
void tst_labels::sampleFile()
{
    LabelsFile labels;
    QVERIFY(labels.readFile(samplePath()));
    const QList<FunctionRecord> functions = labels.getFunctions();
    QCOMPARE(labels.getVersionAndSize().second, functions.size());
    QVERIFY(functions.size() >= 4);
    const QMap<QString, int> bases{{"usr", 0}, {"sys", 10000}, {"reg", 40000},
                                   {"mcm", 50000}, {"bus", 60000}, {"com", 70000}};
    QSet<QString> areasSeen;
    bool chinese = false;
    for (const FunctionRecord &f : functions) {
        QVERIFY(!f.subFunctions.isEmpty());
        for (const SubFunctionRecord &s : f.subFunctions) {
            QCOMPARE(s.subItems.size(), s.displaySize);
            QVERIFY(s.subItems.contains("Value"));
            QCOMPARE(s.names.size(), s.addresses.size());
            QCOMPARE(s.values.size(), s.addresses.size());
            QCOMPARE(s.types.size(), s.addresses.size());
            QCOMPARE(s.accesses.size(), s.addresses.size());
            for (const QString &a : s.addresses) {
                const QString area = a.left(3);
                QVERIFY2(bases.contains(area), qPrintable(a));
                bool ok = false;
                const int offset = a.mid(3).toInt(&ok, 10);
                QVERIFY2(ok && offset >= 0 && bases.value(area) + offset <= 169999, qPrintable(a));
                areasSeen.insert(area);
            }
            for (const QString &n : s.names)
                chinese = chinese || n.contains(QRegularExpression("[\\x{4e00}-\\x{9fff}]"));
        }
    }
    QCOMPARE(areasSeen.size(), bases.size());
    QVERIFY(chinese);
}

void tst_labels::sampleRoundTrip()
{
    LabelsFile in;
    QVERIFY(in.readFile(samplePath()));
    const QString out = dir.filePath("sample-out.xml");
    LabelsFile writer;
    QVERIFY(writer.writeFile(out, in.getFunctions(), in.getVersionAndSize().first,
                             in.getVersionAndSize().second));
    QCOMPARE(readAll(out), readAll(samplePath()));
}

void tst_labels::modelRoundTrip()
{
    SubFunctionRecord page;
    page.name = QStringLiteral("页 \"1\" & <two>");
    page.displaySize = 3;
    page.subItems = QStringList{"Name", "Value", "单位"};
    page.addresses = QStringList{"usr12", "reg300"};
    page.names = QStringList{"速度 < 100", "  spaced  "};
    page.values = QStringList{"-1", ""};
    page.types = QStringList{"INT32", "BOOL"};
    page.accesses = QStringList{"RW", "R"};
    FunctionRecord f1{0x1f, QStringLiteral("轴 & 'axis'"), {page, SubFunctionRecord{}}};
    FunctionRecord f2{0x7fffffff, QString(), {}};
    const QList<FunctionRecord> model{f1, f2};

    const QString path = dir.filePath("model.xml");
    LabelsFile writer;
    QVERIFY(writer.writeFile(path, model, 0xabc, 2));
    LabelsFile reader;
    QVERIFY(reader.readFile(path));
    QCOMPARE(reader.getVersionAndSize(), qMakePair(0xabc, 2));
    QCOMPARE(reader.getFunctions().size(), 2);
    QVERIFY(reader.getFunctions() == model);
}

// Element and attribute order, the "0x" numbers and the size taken as given.
void tst_labels::writerLayout()
{
    SubFunctionRecord page;
    page.name = "P";
    page.displaySize = 3; // one more than there are headings: written empty
    page.subItems = QStringList{"Name", "Value"};
    page.addresses = QStringList{"usr1"};
    page.values = QStringList{"7"}; // the other lists are short
    const QList<FunctionRecord> model{FunctionRecord{26, "F", {page}}};
    const QString path = dir.filePath("layout.xml");
    LabelsFile labels;
    QVERIFY(labels.writeFile(path, model, 258, 9));
    const QByteArray expected =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<VelmoraInf>\n"
        "    <version>0x102</version>\n"
        "    <Module Size=\"0x9\">\n"
        "        <Function Id=\"0x1a\" Name=\"F\">\n"
        "            <SubFunction Name=\"P\">\n"
        "                <Display Size=\"0x3\">\n"
        "                    <SubItem>Name</SubItem>\n"
        "                    <SubItem>Value</SubItem>\n"
        "                    <SubItem></SubItem>\n"
        "                </Display>\n"
        "                <Object>\n"
        "                    <Address>usr1</Address>\n"
        "                    <Name></Name>\n"
        "                    <Value>7</Value>\n"
        "                    <Type></Type>\n"
        "                    <Access></Access>\n"
        "                </Object>\n"
        "            </SubFunction>\n"
        "        </Function>\n"
        "    </Module>\n"
        "</VelmoraInf>\n";
    QCOMPARE(readAll(path), expected);
}

// Several modules, children in any order, unknown elements stepped into,
// a missing child leaving its list short, hexadecimal with and without prefix.
void tst_labels::readerStructure()
{
    const QString path = put(
        "<?xml version=\"1.0\"?>\n"
        "<VelmoraInf><version>1f</version>\n"
        " <Module Size=\"0x5\"><Function Name=\"A\" Id=\"abc\">\n"
        "  <SubFunction Name=\"a1\">\n"
        "   <Object><Value>10</Value><Extra>x</Extra><Address>usr1</Address><Name>n1</Name>"
        "<Access>R</Access><Type>T</Type></Object>\n"
        "   <Object><Address>usr2</Address><Name>n2</Name><Type>T</Type><Access>RW</Access></Object>\n"
        "   <Object><Address>usr3</Address><Name>n3</Name><Value>30</Value><Type>T</Type><Access>R</Access></Object>\n"
        "   <Display Size=\"zz\"><SubItem>Value</SubItem><SubItem> Name </SubItem></Display>\n"
        "  </SubFunction></Function></Module>\n"
        " <Wrapper><Module Size=\"2\"><Function Id=\"0x2\"><SubFunction/></Function></Module></Wrapper>\n"
        "</VelmoraInf>\n");
    LabelsFile labels;
    QVERIFY(labels.readFile(path));
    QCOMPARE(labels.getVersionAndSize(), qMakePair(0x1f, 2));
    const QList<FunctionRecord> f = labels.getFunctions();
    QCOMPARE(f.size(), 2);
    QCOMPARE(f[0].id, 0xabc);
    QCOMPARE(f[0].name, QString("A"));
    QCOMPARE(f[1].id, 2);
    QCOMPARE(f[1].name, QString());
    QCOMPARE(f[1].subFunctions.size(), 1);
    const SubFunctionRecord &s = f[0].subFunctions.at(0);
    QCOMPARE(s.displaySize, 0);
    QCOMPARE(s.subItems, QStringList({"Value", " Name "}));
    QCOMPARE(s.addresses, QStringList({"usr1", "usr2", "usr3"}));
    QCOMPARE(s.names, QStringList({"n1", "n2", "n3"}));
    QCOMPARE(s.values, QStringList({"10", "30"}));
    QCOMPARE(s.accesses, QStringList({"R", "RW", "R"}));
}

void tst_labels::badInput_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("error");
    QTest::addColumn<int>("functions");
    QTest::addColumn<int>("objects"); // addresses in the last function's first page; -1: unchecked

    QTest::newRow("foreign root")
        << QByteArray("<?xml version=\"1.0\"?><html><VelmoraInf/></html>") << "Not a labels file" << 0 << 0;
    QTest::newRow("second root") << QByteArray("<VelmoraInf/><Other/>") << "" << 0 << 0;
    QTest::newRow("empty file") << QByteArray() << "" << 0 << 0;
    QTest::newRow("not xml") << QByteArray("\x01\xff garbage <<<") << "" << 0 << 0;
    QTest::newRow("truncated")
        << QByteArray("<VelmoraInf><Module Size=\"2\"><Function Id=\"1\" Name=\"F\"><SubFunction Name=\"S\">"
                      "<Object><Address>usr1</Address><Name>a</Name></Object><Object><Address>usr2</Address><Na")
        << "" << 1 << 2;
    QTest::newRow("mismatched tags")
        << QByteArray("<VelmoraInf><Module><Function><SubFunction><Object><Address>usr1</Name></Object>")
        << "" << 1 << -1;
    QTest::newRow("element inside text")
        << QByteArray("<VelmoraInf><version>1<b/></version></VelmoraInf>") << "" << 0 << 0;
}

void tst_labels::badInput()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, error);
    QFETCH(int, functions);
    QFETCH(int, objects);
    QTest::ignoreMessage(QtDebugMsg, QRegularExpression("^Error: Failed to parse file "));
    LabelsFile labels;
    QVERIFY(!labels.readFile(put(bytes)));
    if (!error.isEmpty())
        QCOMPARE(labels.errorString(), error);
    const QList<FunctionRecord> f = labels.getFunctions();
    QCOMPARE(f.size(), functions);
    if (functions > 0 && objects >= 0) {
        const SubFunctionRecord s = f.last().subFunctions.value(0);
        QCOMPARE(s.addresses.size(), objects);
        QCOMPARE(s.names.size(), objects - 1); // the cut came inside the last row
    }
}

void tst_labels::unopenablePaths()
{
    LabelsFile labels;
    QTest::ignoreMessage(QtDebugMsg, QRegularExpression("^Error: Cannot read file .*Path==.*missing\\.xml"));
    QVERIFY(!labels.readFile(dir.filePath("missing.xml")));
    QTest::ignoreMessage(QtDebugMsg, QRegularExpression("^Error: Cannot read file .*Path=="));
    QVERIFY(!labels.readFile(dir.path()));
    QVERIFY(labels.getFunctions().isEmpty());
    QCOMPARE(labels.getVersionAndSize(), qMakePair(0, 0));
    QTest::ignoreMessage(QtDebugMsg, QRegularExpression("^Error: Cannot read file .*Path=="));
    QVERIFY(!labels.writeFile(dir.filePath("no/such/dir/out.xml"), {}, 1, 0));
}

QTEST_GUILESS_MAIN(tst_labels)
#include "tst_labels.moc"
