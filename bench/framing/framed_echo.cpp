// The least a native-messaging host can do: read each frame whole with blocking reads and
// answer it with a small framed JSON object. The baseline the host's figures are compared with.
#include "../common/stdiofull.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

int main()
{
    std::vector<char> payload;
    for (;;) {
        uint32_t length = 0;
        if (!readAll(&length, 4))
            return 0;
        payload.resize(length);
        if (!readAll(payload.data(), length))
            return 0;
        const std::string answer = "{\"error\":null,\"method\":\"echo\",\"result\":\"" + std::to_string(length) + "\"}";
        const uint32_t answerLength = uint32_t(answer.size());
        writeAll(&answerLength, 4);
        writeAll(answer.data(), answer.size());
    }
}
