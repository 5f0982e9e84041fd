#ifndef LABELSFILE_H
#define LABELSFILE_H

#include "FunctionRecord.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

// Reader and writer of "Velmora.xml", the file that tells the display what
// each controller variable means. Use one object per read: readFile appends
// to the function list, it does not start it afresh.
class LabelsFile
{
public:
    LabelsFile();
    ~LabelsFile();

    // True when the file was opened and parsed to its end without an XML or
    // file error. On false the model holds whatever was parsed before the
    // failure (empty for a missing file or a foreign root element).
    bool readFile(const QString &path);

    // Writes the given list and numbers (not this object's own model).
    // True when the file could be opened; later write errors go unnoticed.
    bool writeFile(const QString &path, const QList<FunctionRecord> &functions,
                   qint32 version, qint32 moduleSize);

    // (version, moduleSize) as read by the last readFile; 0 before that.
    QPair<qint32, qint32> getVersionAndSize() const;
    QList<FunctionRecord> getFunctions() const;

    // The reader's error text after a failed parse, e.g. "Not a labels file".
    QString errorString() const;

    // Numbers in the file: read as hexadecimal with or without "0x" (text
    // that is not a number reads as 0), written as "0x" + lower-case hex.
    static qint32 parseNumber(const QString &text);
    static QString numberText(qint32 v);

private:
    bool nextChildOf(QLatin1String element);
    void readRoot();
    void readModule();
    void readFunction(FunctionRecord &function);
    void readSubFunction(SubFunctionRecord &sub);
    void readDisplay(SubFunctionRecord &sub);
    void readObject(SubFunctionRecord &sub);

    QXmlStreamReader reader;
    QXmlStreamWriter writer;
    qint32 version = 0;
    qint32 moduleSize = 0;
    QList<FunctionRecord> functions;
    QList<FunctionRecord> spareFunctions; // kept for layout compatibility; never filled
};

#endif
