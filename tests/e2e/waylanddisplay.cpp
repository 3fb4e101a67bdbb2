#include "waylanddisplay.h"

bool WaylandDisplay::tool(const QStringList& arguments, QString* output) const
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start("python3", QStringList{script, arguments.first(), dir.path()} + arguments.mid(1));
    const bool done = process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (output)
        *output = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    return done;
}
