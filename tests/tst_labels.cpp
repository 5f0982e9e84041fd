// The labels file: its numbers, its address texts, the writer's exact
// layout, the reader's tolerance and its failures. No screen, no socket.
#include "../display/AddressConversion.h"
#include "../display/LabelsFile.h"

#include <QtTest>

Q_DECLARE_METATYPE(FunctionRecord)

class tst_labels : public QObject
{
    Q_OBJECT
    QTemporaryDir dir;

    QByteArray readAll(const QString &name)
    {
        QFile f(QDir(dir.path()).absoluteFilePath(name));
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }
    QString put(const QByteArray &bytes)
    {
        QFile f(dir.filePath("in.xml"));
        if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate) || f.write(bytes) != bytes.size())
            qFatal("cannot write %s", qPrintable(f.fileName()));
        return f.fileName();
    }

private slots:
    void numbers_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qint32>("value");
        // The file's own numbers (prefixed, bare, "zz", the largest) are read in
        // writerLayoutAndReadBack and reader's "tolerated" row.
        QTest::newRow("prefix alone") << "0x" << 0;
        QTest::newRow("prefix twice") << "0x0x1f" << 0;
        QTest::newRow("too wide") << "0x1ffffffff" << 0;
    }
    void numbers()
    {
        QFETCH(QString, text);
        QFETCH(qint32, value);
        QCOMPARE(LabelsFile::parseNumber(text), value);
    }

    // A page's address texts to variable numbers; an unknown prefix carries the
    // area of the last known one.
    void addresses_data()
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
    void addresses()
    {
        QFETCH(int, channel);
        QFETCH(QStringList, texts);
        QFETCH(QList<long>, numbers);
        QCOMPARE(AddressConversion::toVariableNumbers(texts, channel), numbers);
    }

    // The shipped file comes back from the writer byte for byte (so every row
    // has its five children and every page its stated columns), every page
    // has a "Value" column, and its variables cover all six areas in range.
    void sampleFile()
    {
        LabelsFile labels;
        QVERIFY(labels.readFile(qEnvironmentVariable("VELMORA_SOURCE_DIR", ".") + "/display/Velmora.xml"));
        const QList<FunctionRecord> functions = labels.getFunctions();
        QVERIFY(LabelsFile().writeFile(dir.filePath("sample.xml"), functions, labels.getVersionAndSize().first, functions.size()));
        QCOMPARE(readAll("sample.xml"), readAll(qEnvironmentVariable("VELMORA_SOURCE_DIR", ".") + "/display/Velmora.xml"));
        QSet<int> areas;
        for (const FunctionRecord &f : functions) {
            for (const SubFunctionRecord &s : f.subFunctions) {
                QVERIFY(s.subItems.contains("Value"));
                for (const QString &a : s.addresses) {
                    bool ok = false;
                    const int area = AddressConversion::areaIndex(a.left(3));
                    QVERIFY2(area >= 0 && AddressConversion::areaBase(area) + a.mid(3).toInt(&ok, 10) <= 169999 && ok, qPrintable(a));
                    areas.insert(area);
                }
            }
        }
        QCOMPARE(areas.size(), 6);
    }

    // Element and attribute order, "0x" numbers, the size taken as given, XML
    // escapes and Chinese text; what is written reads back the same.
    void writerLayoutAndReadBack()
    {
        const SubFunctionRecord page{"页 \"1\"", 2, {"Name", "单位"}, {"usr1"}, {"速度 < 100 & more"}, {"-7"}, {"INT32"}, {""}};
        const QList<FunctionRecord> model{{26, "F", {page}}, {0x7fffffff, QString(), {}}};
        QVERIFY(LabelsFile().writeFile(dir.filePath("layout.xml"), model, 258, 9));
        QCOMPARE(readAll("layout.xml"), QByteArray("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
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
                                                   "</VelmoraInf>\n"));
        LabelsFile reader;
        QVERIFY(reader.readFile(dir.filePath("layout.xml")));
        QCOMPARE(reader.getVersionAndSize(), qMakePair(258, 9));
        QVERIFY(reader.getFunctions() == model);
    }

    // What the reader takes: several modules, children in any order, unknown
    // elements stepped into, a missing child leaving its list short, numbers
    // with and without "0x". What it refuses, with the records filled as far
    // as it got.
    void reader_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("error");   // null: read; empty: the parser's own
        QTest::addColumn<QList<FunctionRecord>>("functions");
        QTest::newRow("tolerated") << QByteArray("<?xml version=\"1.0\"?>\n<VelmoraInf><version>1f</version>\n"
                                                 " <Module Size=\"0x5\"><Function Name=\"A\" Id=\"abc\"><SubFunction Name=\"a1\">\n"
                                                 "   <Object><Value>10</Value><Extra>x</Extra><Address>usr1</Address><Name>n1</Name></Object>\n"
                                                 "   <Object><Address>usr2</Address><Name>n2</Name></Object>\n"
                                                 "   <Object><Address>usr3</Address><Name>n3</Name><Value>30</Value></Object>\n"
                                                 "   <Display Size=\"zz\"><SubItem>Value</SubItem><SubItem> Name </SubItem></Display>\n"
                                                 "  </SubFunction></Function></Module>\n"
                                                 " <Wrapper><Module Size=\"2\"><Function Id=\"0x2\"><SubFunction/></Function></Module></Wrapper>\n"
                                                 "</VelmoraInf>\n")
                                   << QString()
                                   << QList<FunctionRecord>{{0xabc, "A", {{"a1", 0, {"Value", " Name "}, {"usr1", "usr2", "usr3"},
                                                                           {"n1", "n2", "n3"}, {"10", "30"}, {}, {}}}},
                                                            {2, "", {SubFunctionRecord()}}};
        QTest::newRow("foreign root") << QByteArray("<?xml version=\"1.0\"?><html><VelmoraInf/></html>") << "Not a labels file"
                                      << QList<FunctionRecord>{};
        QTest::newRow("second root") << QByteArray("<VelmoraInf/><Other/>") << "" << QList<FunctionRecord>{};
        QTest::newRow("empty file") << QByteArray() << "" << QList<FunctionRecord>{};
        QTest::newRow("not xml") << QByteArray("\x01\xff garbage <<<") << "" << QList<FunctionRecord>{};
        QTest::newRow("truncated inside a row")
            << QByteArray("<VelmoraInf><Module Size=\"2\"><Function Id=\"1\" Name=\"F\"><SubFunction Name=\"S\">"
                          "<Object><Address>usr1</Address><Name>a</Name></Object><Object><Address>usr2</Address><Na")
            << "" << QList<FunctionRecord>{{1, "F", {{"S", 0, {}, {"usr1", "usr2"}, {"a"}, {}, {}, {}}}}};
        QTest::newRow("mismatched tags")
            << QByteArray("<VelmoraInf><Module><Function><SubFunction><Object><Address>usr1</Name></Object>")
            << "" << QList<FunctionRecord>{{0, "", {{"", 0, {}, {"usr1"}, {}, {}, {}, {}}}}};
    }
    void reader()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, error);
        QFETCH(QList<FunctionRecord>, functions);
        LabelsFile labels;
        QCOMPARE(labels.readFile(put(bytes)), error.isNull());
        QCOMPARE(labels.getFunctions(), functions);
        if (error.isNull())
            QCOMPARE(labels.getVersionAndSize(), qMakePair(0x1f, 2));   // the last Module's size wins
        else
            QVERIFY2(error.isEmpty() ? !labels.errorString().isEmpty() : labels.errorString() == error,
                     qPrintable(labels.errorString()));
    }

    void unopenablePaths()
    {
        LabelsFile labels;
        QVERIFY(!labels.readFile(dir.filePath("missing.xml")) && !labels.readFile(dir.path()));
        QVERIFY(labels.getFunctions().isEmpty() && labels.getVersionAndSize() == qMakePair(0, 0));
        QVERIFY(!labels.writeFile(dir.filePath("no/such/dir/out.xml"), {}, 1, 0));
    }
};

QTEST_GUILESS_MAIN(tst_labels)
#include "tst_labels.moc"
