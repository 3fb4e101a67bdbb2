// The least a native-messaging host can do: read each frame whole with blocking reads and
// answer it with a small framed JSON object. The baseline the host's figures are compared with.
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

static bool readAll(void* buffer, size_t size)
{
    auto* p = static_cast<char*>(buffer);
    while (size > 0) {
        const ssize_t n = read(0, p, size);
        if (n <= 0)
            return false;
        p += n;
        size -= size_t(n);
    }
    return true;
}

static void writeAll(const void* buffer, size_t size)
{
    auto* p = static_cast<const char*>(buffer);
    while (size > 0) {
        const ssize_t n = write(1, p, size);
        if (n <= 0)
            return;
        p += n;
        size -= size_t(n);
    }
}

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
