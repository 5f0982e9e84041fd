#ifndef SIMSCENARIO_H
#define SIMSCENARIO_H

#include <QList>
#include <QString>

class ControllerSim;

// Settings of a simulated controller given as words. The velmora-sim command
// line and scenario files share them: a scenario line is an option without
// its dashes, e.g. "fault d:2=state:3:3" or "var 1000005=42".
class SimScenario
{
public:
    struct Setting {
        QString name;
        QString valueName;   // empty: a switch without value
        QString help;
    };
    static const QList<Setting> &settings();

    // One setting; false with the reason when the name or value is bad.
    static bool apply(ControllerSim &sim, const QString &name, const QString &value, QString *error);
    // A whole scenario: one setting per line, '#' starts a comment, blank
    // lines are skipped. Errors name the line: "3: bad fault ...".
    static bool applyText(ControllerSim &sim, const QString &text, QString *error);
    // The help text that documents the fault kinds and the scenario format.
    static QString formatHelp();
};

#endif
