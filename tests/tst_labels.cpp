// The labels file: its numbers, its address texts, the writer's exact
// layout, the reader's tolerance and its failures. No screen, no socket.
#include "../display/AddressConversion.h"
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
    void addresses_data();
    void addresses();
    void sampleFile();
    void writerLayoutAndReadBack();
    void readerStructure();
    void badInput_data();
    void badInput();
    void unopenablePaths();

private:
    QString put(const QByteArray &bytes)
    {
        const QString path = dir.filePath(QStringLiteral("labels%1.xml").arg(++serial));
        QFile f(path);
        if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size())
            qFatal("cannot write %s", qPrintable(path));
        return path;
    }
    static QByteArray readAll(const QString &path)
    {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }
    QTemporaryDir dir;
    int serial = 0;
};

void tst_labels::numbers_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<qint32>("value");
    QTest::newRow("prefixed") << "0x1f" << 31;
    QTest::newRow("bare") << "1f" << 31;
    QTest::newRow("bare letters") << "abc" << 0xabc;
    QTest::newRow("not hex") << "zz" << 0;
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

// A page's address texts to variable numbers; an unknown prefix carries the
// area of the last known one.
void tst_labels::addresses_data()
{
    QTest::addColumn<int>("channel");
    QTest::addColumn<QStringList>("texts");
    QTest::addColumn<QList<long>>("numbers");
    QTest::newRow("every area, ch2") << 2 << QStringList{"usr1", "sys1", "reg1", "mcm1", "bus1", "com1"}
                                     << QList<long>{2000001, 2010001, 2040001, 2050001, 2060001, 2070001};
    QTest::newRow("largest offset, ch8") << 8 << QStringList{"usr169999"} << QList<long>{8169999};
    QTest::newRow("carry-over follows the last known") << 1 << QStringList{"reg1", "sys2", "ab3", "c4"}
                                                       << QList<long>{1040001, 1010002, 1010003, 1010004};
    QTest::newRow("no area yet: bare offset") << 1 << QStringList{"x7", "usr3", "abc4"}
                                              << QList<long>{7, 1000003, 1000004};
    QTest::newRow("prefix is case-sensitive") << 1 << QStringList{"USR5"} << QList<long>{5};
    QTest::newRow("malformed offset is 0") << 1 << QStringList{"usr12x", "com"} << QList<long>{1000000, 1070000};
    QTest::newRow("empty and short") << 1 << QStringList{"", "us"} << QList<long>{0, 0};
}

void tst_labels::addresses()
{
    QFETCH(int, channel);
    QFETCH(QStringList, texts);
    QFETCH(QList<long>, numbers);
    QCOMPARE(AddressConversion::toVariableNumbers(texts, channel), numbers);
}

// The shipped file must be usable by the display, and the writer gives it
// back byte for byte.
void tst_labels::sampleFile()
{
    const QString sample = qEnvironmentVariable("VELMORA_SOURCE_DIR", ".") + "/display/Velmora.xml";
    LabelsFile labels;
    QVERIFY(labels.readFile(sample));
    const QList<FunctionRecord> functions = labels.getFunctions();
    QCOMPARE(labels.getVersionAndSize().second, functions.size());
    QVERIFY(functions.size() >= 4);
    QSet<int> areas;
    for (const FunctionRecord &f : functions) {
        for (const SubFunctionRecord &s : f.subFunctions) {
            QCOMPARE(s.subItems.size(), s.displaySize);
            QVERIFY(s.subItems.contains("Value"));
            for (const QStringList *list : {&s.names, &s.values, &s.types, &s.accesses})
                QCOMPARE(list->size(), s.addresses.size());
            for (const QString &a : s.addresses) {
                bool ok = false;
                const int area = AddressConversion::areaIndex(a.left(3));
                const long number = AddressConversion::areaBase(area) + a.mid(3).toInt(&ok, 10);
                QVERIFY2(area >= 0 && ok && number <= 169999, qPrintable(a));
                areas.insert(area);
            }
        }
    }
    QCOMPARE(areas.size(), 6);
    const QString out = dir.filePath("sample-out.xml");
    QVERIFY(LabelsFile().writeFile(out, functions, labels.getVersionAndSize().first, functions.size()));
    QCOMPARE(readAll(out), readAll(sample));
}

// Element and attribute order, "0x" numbers, the size taken as given, XML
// escapes and Chinese text; what is written reads back the same.
void tst_labels::writerLayoutAndReadBack()
{
    SubFunctionRecord page;
    page.name = QStringLiteral("页 \"1\"");
    page.displaySize = 2;
    page.subItems = QStringList{"Name", "单位"};
    page.addresses = QStringList{"usr1"};
    page.names = QStringList{"速度 < 100 & more"};
    page.values = QStringList{"-7"};
    page.types = QStringList{"INT32"};
    page.accesses = QStringList{""};
    const QList<FunctionRecord> model{FunctionRecord{26, "F", {page}}, FunctionRecord{0x7fffffff, QString(), {}}};
    const QString path = dir.filePath("layout.xml");
    QVERIFY(LabelsFile().writeFile(path, model, 258, 9));
    const QByteArray expected =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<VelmoraInf>\n"
        "    <version>0x102</version>\n"
        "    <Module Size=\"0x9\">\n"
        "        <Function Id=\"0x1a\" Name=\"F\">\n"
        "            <SubFunction Name=\"页 &quot;1&quot;\">\n"
        "                <Display Size=\"0x2\">\n"
        "                    <SubItem>Name</SubItem>\n"
        "                    <SubItem>单位</SubItem>\n"
        "                </Display>\n"
        "                <Object>\n"
        "                    <Address>usr1</Address>\n"
        "                    <Name>速度 &lt; 100 &amp; more</Name>\n"
        "                    <Value>-7</Value>\n"
        "                    <Type>INT32</Type>\n"
        "                    <Access></Access>\n"
        "                </Object>\n"
        "            </SubFunction>\n"
        "        </Function>\n"
        "        <Function Id=\"0x7fffffff\" Name=\"\"/>\n"
        "    </Module>\n"
        "</VelmoraInf>\n";
    QCOMPARE(readAll(path), expected);
    LabelsFile reader;
    QVERIFY(reader.readFile(path));
    QCOMPARE(reader.getVersionAndSize(), qMakePair(258, 9));
    QVERIFY(reader.getFunctions() == model);
}

// Several modules, children in any order, unknown elements stepped into,
// a missing child leaving its list short, hexadecimal with and without prefix.
void tst_labels::readerStructure()
{
    LabelsFile labels;
    QVERIFY(labels.readFile(put(
        "<?xml version=\"1.0\"?>\n"
        "<VelmoraInf><version>1f</version>\n"
        " <Module Size=\"0x5\"><Function Name=\"A\" Id=\"abc\"><SubFunction Name=\"a1\">\n"
        "   <Object><Value>10</Value><Extra>x</Extra><Address>usr1</Address><Name>n1</Name></Object>\n"
        "   <Object><Address>usr2</Address><Name>n2</Name></Object>\n"
        "   <Object><Address>usr3</Address><Name>n3</Name><Value>30</Value></Object>\n"
        "   <Display Size=\"zz\"><SubItem>Value</SubItem><SubItem> Name </SubItem></Display>\n"
        "  </SubFunction></Function></Module>\n"
        " <Wrapper><Module Size=\"2\"><Function Id=\"0x2\"><SubFunction/></Function></Module></Wrapper>\n"
        "</VelmoraInf>\n")));
    QCOMPARE(labels.getVersionAndSize(), qMakePair(0x1f, 2));
    const QList<FunctionRecord> f = labels.getFunctions();
    QCOMPARE(f.size(), 2);
    QCOMPARE(QList<qint32>({f[0].id, f[1].id}), QList<qint32>({0xabc, 2}));
    QCOMPARE(f[1].subFunctions.size(), 1);
    const SubFunctionRecord &s = f[0].subFunctions.at(0);
    QCOMPARE(s.displaySize, 0);
    QCOMPARE(s.subItems, QStringList({"Value", " Name "}));
    QCOMPARE(s.addresses, QStringList({"usr1", "usr2", "usr3"}));
    QCOMPARE(s.values, QStringList({"10", "30"}));
}

void tst_labels::badInput_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("error");
    QTest::addColumn<int>("functions");
    QTest::addColumn<int>("objects");   // addresses in the last function's first page; -1: unchecked
    QTest::newRow("foreign root")
        << QByteArray("<?xml version=\"1.0\"?><html><VelmoraInf/></html>") << "Not a labels file" << 0 << 0;
    QTest::newRow("second root") << QByteArray("<VelmoraInf/><Other/>") << "" << 0 << 0;
    QTest::newRow("empty file") << QByteArray() << "" << 0 << 0;
    QTest::newRow("not xml") << QByteArray("\x01\xff garbage <<<") << "" << 0 << 0;
    QTest::newRow("truncated: filled as far as it got")
        << QByteArray("<VelmoraInf><Module Size=\"2\"><Function Id=\"1\" Name=\"F\"><SubFunction Name=\"S\">"
                      "<Object><Address>usr1</Address><Name>a</Name></Object><Object><Address>usr2</Address><Na")
        << "" << 1 << 2;
    QTest::newRow("mismatched tags")
        << QByteArray("<VelmoraInf><Module><Function><SubFunction><Object><Address>usr1</Name></Object>")
        << "" << 1 << -1;
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
        QCOMPARE(s.names.size(), objects - 1);   // the cut came inside the last row
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
