#pragma once

#include <QString>

#include <cstddef>
#include <memory>

// A PIN with one owner at a time: it can be moved, never copied, and its bytes are overwritten
// in place when it dies. It holds the UTF-8 bytes the token receives, so handing it to C_Login
// makes no further copy.
class SecretPin
{
public:
    SecretPin() = default;
    // Encodes the text straight into the PIN's own buffer; the caller wipes the text it holds.
    static SecretPin fromText(QStringView text);
    ~SecretPin();

    SecretPin(SecretPin&& other) noexcept;
    SecretPin& operator=(SecretPin&& other) noexcept;
    SecretPin(const SecretPin&) = delete;
    SecretPin& operator=(const SecretPin&) = delete;

    bool isEmpty() const { return length == 0; }
    std::size_t size() const { return length; }
    const unsigned char* utf8() const { return bytes.get(); }

    // Overwrites the characters of a string in place, through the string's own buffer, and
    // empties it. Every string that shares the buffer sees zeros: no detached copy is made and
    // left behind, as QString::fill() would on a shared buffer.
    static void wipe(QString& text);
    // Overwrites every PIN the process still holds, wherever it is: for an end that runs no
    // destructors, because a thread left inside a module call may still hold one.
    static void wipeAll();

private:
    void wipeBytes();

    std::unique_ptr<unsigned char[]> bytes;
    std::size_t length = 0;
    std::size_t capacity = 0;
};
