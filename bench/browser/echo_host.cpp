// A native-messaging host that does nothing but answer: every framed request gets a framed
// answer of the host's shape ("error", "method", "result", "id") with its method and id echoed.
// Through the browser it measures what the browser and the extension cost on their own.
#include <QJsonDocument>
#include <QJsonObject>

#include "../common/stdiofull.h"

#include <cstdint>
#include <unistd.h>
#include <vector>

int main()
{
    std::vector<char> payload;
    for (;;) {
        uint32_t length = 0;
        if (!readAll(&length, sizeof length))
            return 0;
        payload.resize(length);
        if (!readAll(payload.data(), length))
            return 0;
        const QJsonObject request = QJsonDocument::fromJson(QByteArray::fromRawData(payload.data(), int(length))).object();
        QJsonObject answer{{QStringLiteral("error"), QJsonValue::Null},
                           {QStringLiteral("method"), request.value(QStringLiteral("method"))},
                           {QStringLiteral("result"), QStringLiteral("echo")}};
        if (request.contains(QStringLiteral("id")))
            answer.insert(QStringLiteral("id"), request.value(QStringLiteral("id")));
        const QByteArray out = QJsonDocument(answer).toJson(QJsonDocument::Compact);
        const uint32_t outLength = uint32_t(out.size());
        if (!writeAll(&outLength, sizeof outLength) || !writeAll(out.constData(), out.size()))
            return 0;
    }
}
