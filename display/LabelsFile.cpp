#include "LabelsFile.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>

LabelsFile::LabelsFile() = default;

LabelsFile::~LabelsFile() = default;

qint32 LabelsFile::parseNumber(const QString &text)
{
    // Base 16 takes one optional "0x" itself; "0x0x1f" is no number.
    bool ok = false;
    const qint32 v = text.toInt(&ok, 16);
    return ok ? v : 0;
}

QString LabelsFile::numberText(qint32 v)
{
    return QLatin1String("0x") + QString::number(v, 16);
}

bool LabelsFile::readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qDebug() << "Error: Cannot read file " << "Path==" << path;
        return false;
    }
    reader.setDevice(&file);
    while (!reader.atEnd()) {
        reader.readNext();
        if (!reader.isStartElement())
            continue;
        if (reader.name() == QLatin1String("VelmoraInf"))
            readRoot();
        else
            reader.raiseError(QCoreApplication::translate("LabelsFile", "Not a labels file"));
    }
    file.close();
    if (reader.hasError()) {
        qDebug() << "Error: Failed to parse file " << path << reader.errorString();
        return false;
    }
    if (file.error() != QFileDevice::NoError) {
        qDebug() << "Error: Cannot read file " << path << file.errorString();
        return false;
    }
    reader.clear();
    return true;
}

// Each level below reads until its own end element or the end of the
// stream, so a truncated file leaves the records filled as far as it got.
bool LabelsFile::nextChildOf(QLatin1String element)
{
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement())
            return true;
        if (reader.isEndElement() && reader.name() == element)
            return false;
    }
    return false;
}

void LabelsFile::readRoot()
{
    while (nextChildOf(QLatin1String("VelmoraInf"))) {
        if (reader.name() == QLatin1String("version")) {
            version = parseNumber(reader.readElementText());
        } else if (reader.name() == QLatin1String("Module")) {
            // Several modules all feed the one list; the last size wins.
            moduleSize = parseNumber(reader.attributes().value(QLatin1String("Size")).toString());
            readModule();
        }
        // Anything else is stepped into, so a Module nested in it still counts.
    }
}

void LabelsFile::readModule()
{
    while (nextChildOf(QLatin1String("Module"))) {
        if (reader.name() != QLatin1String("Function"))
            continue;
        FunctionRecord function;
        const QXmlStreamAttributes attrs = reader.attributes();
        function.id = parseNumber(attrs.value(QLatin1String("Id")).toString());
        function.name = attrs.value(QLatin1String("Name")).toString();
        readFunction(function);
        functions.append(function);
    }
}

void LabelsFile::readFunction(FunctionRecord &function)
{
    while (nextChildOf(QLatin1String("Function"))) {
        if (reader.name() != QLatin1String("SubFunction"))
            continue;
        SubFunctionRecord sub;
        sub.name = reader.attributes().value(QLatin1String("Name")).toString();
        readSubFunction(sub);
        function.subFunctions.append(sub);
    }
}

void LabelsFile::readSubFunction(SubFunctionRecord &sub)
{
    while (nextChildOf(QLatin1String("SubFunction"))) {
        if (reader.name() == QLatin1String("Display"))
            readDisplay(sub);
        else if (reader.name() == QLatin1String("Object"))
            readObject(sub);
    }
}

void LabelsFile::readDisplay(SubFunctionRecord &sub)
{
    sub.displaySize = parseNumber(reader.attributes().value(QLatin1String("Size")).toString());
    while (nextChildOf(QLatin1String("Display"))) {
        if (reader.name() == QLatin1String("SubItem"))
            sub.subItems.append(reader.readElementText());
    }
}

void LabelsFile::readObject(SubFunctionRecord &sub)
{
    while (nextChildOf(QLatin1String("Object"))) {
        // Children in any order; a missing one just leaves its list shorter.
        const QStringRef name = reader.name();
        if (name == QLatin1String("Address"))
            sub.addresses.append(reader.readElementText());
        else if (name == QLatin1String("Name"))
            sub.names.append(reader.readElementText());
        else if (name == QLatin1String("Type"))
            sub.types.append(reader.readElementText());
        else if (name == QLatin1String("Value"))
            sub.values.append(reader.readElementText());
        else if (name == QLatin1String("Access"))
            sub.accesses.append(reader.readElementText());
    }
}

bool LabelsFile::writeFile(const QString &path, const QList<FunctionRecord> &functionList,
                           qint32 versionNumber, qint32 moduleCount)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) {
        qDebug() << "Error: Cannot read file " << "Path==" << path;
        return false;
    }
    writer.setDevice(&file);
    writer.setAutoFormatting(true);
    writer.writeStartDocument();
    writer.writeStartElement(QStringLiteral("VelmoraInf"));
    writer.writeTextElement(QStringLiteral("version"), numberText(versionNumber));
    // The size is the caller's; it is not recounted from the list.
    writer.writeStartElement(QStringLiteral("Module"));
    writer.writeAttribute(QStringLiteral("Size"), numberText(moduleCount));
    for (const FunctionRecord &function : functionList) {
        writer.writeStartElement(QStringLiteral("Function"));
        writer.writeAttribute(QStringLiteral("Id"), numberText(function.id));
        writer.writeAttribute(QStringLiteral("Name"), function.name);
        for (const SubFunctionRecord &sub : function.subFunctions) {
            writer.writeStartElement(QStringLiteral("SubFunction"));
            writer.writeAttribute(QStringLiteral("Name"), sub.name);
            writer.writeStartElement(QStringLiteral("Display"));
            writer.writeAttribute(QStringLiteral("Size"), numberText(sub.displaySize));
            // The column count decides how many headings go out; value()
            // keeps an inconsistent caller from reading past the list.
            for (int k = 0; k < sub.displaySize; ++k)
                writer.writeTextElement(QStringLiteral("SubItem"), sub.subItems.value(k));
            writer.writeEndElement();
            for (int i = 0; i < sub.addresses.size(); ++i) {
                writer.writeStartElement(QStringLiteral("Object"));
                writer.writeTextElement(QStringLiteral("Address"), sub.addresses.at(i));
                writer.writeTextElement(QStringLiteral("Name"), sub.names.value(i));
                writer.writeTextElement(QStringLiteral("Value"), sub.values.value(i));
                writer.writeTextElement(QStringLiteral("Type"), sub.types.value(i));
                writer.writeTextElement(QStringLiteral("Access"), sub.accesses.value(i));
                writer.writeEndElement();
            }
            writer.writeEndElement();
        }
        writer.writeEndElement();
    }
    writer.writeEndElement();
    writer.writeEndElement();
    writer.writeEndDocument();
    file.close();
    writer.setDevice(nullptr);
    return true;
}

QPair<qint32, qint32> LabelsFile::getVersionAndSize() const
{
    return qMakePair(version, moduleSize);
}

QList<FunctionRecord> LabelsFile::getFunctions() const
{
    return functions;
}

QString LabelsFile::errorString() const
{
    return reader.errorString();
}
