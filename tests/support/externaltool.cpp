#include "externaltool.h"

#include <QProcess>

bool ExternalTool::run(const QString& program, const QStringList& arguments, QString* output,
                       const QProcessEnvironment& environment, const QString& workingDirectory, int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(workingDirectory);
    process.start(program, arguments);
    const bool done = process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit
                      && process.exitCode() == 0;
    if (output)
        *output = QString::fromLocal8Bit(process.readAllStandardOutput())
                  + (done ? QString() : program + " failed: " + process.readAllStandardError() + process.errorString());
    return done;
}
