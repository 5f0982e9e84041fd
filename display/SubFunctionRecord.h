#ifndef SUBFUNCTIONRECORD_H
#define SUBFUNCTIONRECORD_H

#include <QString>
#include <QStringList>

// One page of a module: the column headings of its table and one entry per
// row in each of the five object lists. The lists are parallel as long as
// every Object of the file had all five children; a missing child leaves
// its list one shorter, and nothing here papers over that.
struct SubFunctionRecord
{
    QString name;
    qint32 displaySize = 0;   // number of table columns
    QStringList subItems;     // column headings, left to right
    QStringList addresses;    // one per row, e.g. "usr12"
    QStringList names;
    QStringList values;
    QStringList types;
    QStringList accesses;

    bool operator==(const SubFunctionRecord &o) const
    {
        return name == o.name && displaySize == o.displaySize && subItems == o.subItems
            && addresses == o.addresses && names == o.names && values == o.values
            && types == o.types && accesses == o.accesses;
    }
    bool operator!=(const SubFunctionRecord &o) const { return !(*this == o); }
};

#endif
