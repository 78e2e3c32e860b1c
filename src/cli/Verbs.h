#pragma once

#include <QList>
#include <QStringList>

namespace dictora::cli {

// A verb runs inside a QCoreApplication (or QApplication when it asks for a
// GUI) and receives the arguments after its name.
struct Verb {
    const char *name;
    const char *summary;
    bool needsGui;
    int (*run)(const QStringList &arguments);
};

const QList<Verb> &verbs();

int runToggle(const QStringList &arguments);
int runPress(const QStringList &arguments);
int runRelease(const QStringList &arguments);
int runHistory(const QStringList &arguments);

} // namespace dictora::cli
