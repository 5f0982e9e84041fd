#ifndef DISPLAYTESTHOME_H
#define DISPLAYTESTHOME_H

// The window and its panels read "Velmora.xml" from the application
// directory and keep "dialogProtocol.ini" in the working directory. A test
// program that uses them re-runs itself from a private copy in a fresh
// directory, which is then both, so programs running side by side never
// share those files. The directory goes when the program ends.

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <unistd.h>

namespace DisplayTestHome {

inline QString path()
{
    return QString::fromLocal8Bit(qgetenv("VELMORA_TEST_HOME"));
}

// Two modules. "轴参数" has a page with all four known columns (its last
// row has no prefix of its own and takes the area of the row above) and a
// page without a "Value" column; "寄存器" has one page of five reg rows.
inline const char *labelsXml()
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<VelmoraInf>\n"
           " <version>0x1001</version>\n"
           " <Module Size=\"0x2\">\n"
           "  <Function Id=\"0x1\" Name=\"轴参数\">\n"
           "   <SubFunction Name=\"页面一\">\n"
           "    <Display Size=\"0x5\"><SubItem>Name</SubItem><SubItem>Value</SubItem>"
           "<SubItem>Type</SubItem><SubItem>Access</SubItem><SubItem>Note</SubItem></Display>\n"
           "    <Object><Address>usr5</Address><Name>速度</Name><Value>1</Value><Type>int</Type><Access>rw</Access></Object>\n"
           "    <Object><Address>usr6</Address><Name>加速度</Name><Value>2</Value><Type>int</Type><Access>rw</Access></Object>\n"
           "    <Object><Address>sys5</Address><Name>位置</Name><Value>3</Value><Type>int</Type><Access>r</Access></Object>\n"
           "    <Object><Address>x7</Address><Name>备用</Name><Value>4</Value><Type>int</Type><Access>r</Access></Object>\n"
           "   </SubFunction>\n"
           "   <SubFunction Name=\"页面二\">\n"
           "    <Display Size=\"0x2\"><SubItem>Name</SubItem><SubItem>Type</SubItem></Display>\n"
           "    <Object><Address>usr9</Address><Name>只读</Name><Value>9</Value><Type>int</Type><Access>r</Access></Object>\n"
           "   </SubFunction>\n"
           "  </Function>\n"
           "  <Function Id=\"0x2\" Name=\"寄存器\">\n"
           "   <SubFunction Name=\"寄存器页\">\n"
           "    <Display Size=\"0x2\"><SubItem>Name</SubItem><SubItem>Value</SubItem></Display>\n"
           "    <Object><Address>reg10</Address><Name>R10</Name><Value>0</Value><Type>int</Type><Access>rw</Access></Object>\n"
           "    <Object><Address>reg11</Address><Name>R11</Name><Value>0</Value><Type>int</Type><Access>rw</Access></Object>\n"
           "    <Object><Address>reg12</Address><Name>R12</Name><Value>0</Value><Type>int</Type><Access>rw</Access></Object>\n"
           "    <Object><Address>reg13</Address><Name>R13</Name><Value>0</Value><Type>int</Type><Access>rw</Access></Object>\n"
           "    <Object><Address>reg14</Address><Name>R14</Name><Value>0</Value><Type>int</Type><Access>rw</Access></Object>\n"
           "   </SubFunction>\n"
           "  </Function>\n"
           " </Module>\n"
           "</VelmoraInf>\n";
}

inline bool writeLabels()
{
    QFile file(path() + "/Velmora.xml");
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        && file.write(labelsXml()) > 0;
}

inline void removeLabels()
{
    QFile::remove(path() + "/Velmora.xml");
}

inline int run(int argc, char **argv, const std::function<int(int, char **)> &body)
{
    if (qEnvironmentVariableIsEmpty("VELMORA_TEST_HOME")) {
        char dir[] = "/tmp/velmora-display-XXXXXX";
        if (!mkdtemp(dir)) {
            perror("mkdtemp");
            return 1;
        }
        const QString copy = QString::fromLocal8Bit(dir) + "/" + QFileInfo(QString::fromLocal8Bit(argv[0])).fileName();
        if (!QFile::copy(QStringLiteral("/proc/self/exe"), copy)
            || !QFile::setPermissions(copy, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)) {
            fprintf(stderr, "cannot copy the test program to %s\n", dir);
            return 1;
        }
        setenv("VELMORA_TEST_HOME", dir, 1);
        const QByteArray file = copy.toLocal8Bit();
        execv(file.constData(), argv);
        perror("execv");
        return 1;
    }
    const QByteArray home = qgetenv("VELMORA_TEST_HOME");
    if (chdir(home.constData()) != 0) {
        perror("chdir");
        return 1;
    }
    const int rc = body(argc, argv);
    QDir(QString::fromLocal8Bit(home)).removeRecursively();
    return rc;
}

} // namespace DisplayTestHome

#endif
