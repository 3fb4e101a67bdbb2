#pragma once

#include <QProcessEnvironment>

// A command-line tool run to its end by a fixture or a test.
class ExternalTool
{
public:
    // True when it exited with code 0 within `timeoutMs`; `output` gets its stdout, on failure also stderr and why.
    static bool run(const QString& program, const QStringList& arguments, QString* output = nullptr,
                    const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
                    const QString& workingDirectory = {}, int timeoutMs = 60000);
};
