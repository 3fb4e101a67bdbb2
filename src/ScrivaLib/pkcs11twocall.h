#pragma once

#include <QByteArray>

#include <p11-kit/pkcs11.h>

#include <algorithm>
#include <vector>

// The PKCS#11 calls that fill a buffer of the caller's are made twice: once to learn how many
// elements the answer has, once into a buffer of that size. The module's numbers come from another
// maker's code and are checked here before they are used: a first answer above the host's limit
// is not allocated, and a second answer larger than the buffer is not read. Either fails the call
// as CKR_GENERAL_ERROR, the error of any failing call, after the log has said what the module
// claimed. A smaller second answer is what the module has, and is used.
class Pkcs11TwoCall
{
public:
    // The most the host allocates on a module's word.
    static constexpr CK_ULONG maxSlots = 1024;
    static constexpr CK_ULONG maxObjects = 65536;
    static constexpr CK_ULONG maxValueLength = 1024 * 1024;
    // How often a read is started when its answer keeps outgrowing the count.
    static constexpr int rounds = 3;

    // call(buffer, &count) is made first with a null buffer and a count of 0, then with a buffer
    // of the answered count, zeroed (even for a count of 0). Returns the elements the module filled.
    // When the answer outgrew the count in between (a token arrived), both calls are made again, up
    // to `rounds` times in all. A failing return value raises the function's Pkcs11Exception; the
    // call may raise its own exception first.
    template<typename T, typename Call>
    static std::vector<T> read(const char* function, const char* unit, CK_ULONG limit, Call call)
    {
        for (int round = 1;; ++round) {
            CK_ULONG count = 0;
            check(function, call(static_cast<T*>(nullptr), &count));
            const CK_ULONG room = withinLimit(function, unit, count, limit);
            std::vector<T> buffer(std::max<CK_ULONG>(room, 1));
            const CK_RV rv = call(buffer.data(), &count);
            if (rv == CKR_BUFFER_TOO_SMALL && round < rounds)
                continue;
            check(function, rv);
            buffer.resize(withinRoom(function, unit, count, room));
            return buffer;
        }
    }

    // The same for the bytes of a digest or signature.
    template<typename Call>
    static QByteArray readBytes(const char* function, Call call)
    {
        const std::vector<CK_BYTE> output = read<CK_BYTE>(function, "bytes", maxValueLength, call);
        return QByteArray(reinterpret_cast<const char*>(output.data()), static_cast<qsizetype>(output.size()));
    }

    // The module's count when it is at most the host's limit; otherwise raises.
    static CK_ULONG withinLimit(const char* function, const char* unit, CK_ULONG reported, CK_ULONG limit);
    // The module's count when it fits the buffer it was given; otherwise raises.
    static CK_ULONG withinRoom(const char* function, const char* unit, CK_ULONG reported, CK_ULONG room);
    // Raises the function's Pkcs11Exception unless rv is CKR_OK.
    static void check(const char* function, CK_RV rv);
};
