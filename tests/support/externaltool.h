#pragma once

#include <QProcessEnvironment>

// A command-line tool run to its end by a fixture or a test.
class ExternalTool
{
public:
    // True when the program exited with code 0 within `timeoutMs`. `output` receives what it wrote to
    // stdout; when it failed, also what it wrote to stderr and why it failed.
    static bool run(const QString& program, const QStringList& arguments, QString* output = nullptr,
                    const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
                    const QString& workingDirectory = {}, int timeoutMs = 60000);
};
