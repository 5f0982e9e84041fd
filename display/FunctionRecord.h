#ifndef FUNCTIONRECORD_H
#define FUNCTIONRECORD_H

#include "SubFunctionRecord.h"

#include <QList>
#include <QString>

// One module of the labels file and its pages, in document order.
struct FunctionRecord
{
    qint32 id = 0;
    QString name;
    QList<SubFunctionRecord> subFunctions;

    bool operator==(const FunctionRecord &o) const
    {
        return id == o.id && name == o.name && subFunctions == o.subFunctions;
    }
    bool operator!=(const FunctionRecord &o) const { return !(*this == o); }
};

#endif
