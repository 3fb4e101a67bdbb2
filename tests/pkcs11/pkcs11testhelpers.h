#pragma once

// Small helpers the PKCS#11 test programs share: loading a module, writing the test module's
// configuration and reading the trace out of the host log.

#include <QFile>
#include <QLibrary>
#include <QRegularExpression>
#include <QString>
#include <QStringList>

#include <p11-kit/pkcs11.h>

#include <memory>
#include <vector>

namespace Pkcs11TestHelpers {

// The module's function list; the library stays loaded for the rest of the process, because
// SoftHSM does not survive being unloaded and loaded again.
inline CK_FUNCTION_LIST_PTR loadFunctionList(const QString& path)
{
    // Destroying a QLibrary does not unload it; these only keep the objects owned.
    static std::vector<std::unique_ptr<QLibrary>> libraries;
    libraries.push_back(std::make_unique<QLibrary>(path));
    QLibrary* library = libraries.back().get();
    if (!library->load())
        return nullptr;
    auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(library->resolve("C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR functions = nullptr;
    if (!getFunctionList || getFunctionList(&functions) != CKR_OK)
        return nullptr;
    return functions;
}

// Writes the test module's key=value configuration file.
inline bool writeModuleConfig(const QString& path, const QStringList& lines)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return false;
    file.write(lines.join(QLatin1Char('\n')).toUtf8() + '\n');
    return true;
}

// The messages of the PKCS#11 trace lines of a host log, with their leading blanks.
inline QStringList traceMessages(const QString& logPath)
{
    QFile file(logPath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    static const QRegularExpression line(QStringLiteral("^\\S+ - \\d+ - \\d+ - I - PKCS#11 - (.*) - at .* line \\d+$"));
    QStringList messages;
    for (const QString& text : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch match = line.match(text);
        if (match.hasMatch())
            messages.append(match.captured(1));
    }
    return messages;
}

} // namespace Pkcs11TestHelpers
