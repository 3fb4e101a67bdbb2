#include "secretpin.h"

#include <QStringEncoder>

#include <openssl/crypto.h>

#include <map>
#include <mutex>
#include <utility>

namespace {

// Every PIN buffer alive and its size. Never destroyed: a PIN may die after static destruction.
std::mutex& liveMutex()
{
    static auto* mutex = new std::mutex;
    return *mutex;
}

std::map<unsigned char*, std::size_t>& liveBuffers()
{
    static auto* buffers = new std::map<unsigned char*, std::size_t>;
    return *buffers;
}

} // namespace

SecretPin SecretPin::fromText(QStringView text)
{
    SecretPin pin;
    if (text.isEmpty())
        return pin;
    QStringEncoder encoder(QStringEncoder::Utf8);
    pin.capacity = std::size_t(encoder.requiredSpace(text.size()));
    pin.bytes.reset(new unsigned char[pin.capacity]);
    char* end = encoder.appendToBuffer(reinterpret_cast<char*>(pin.bytes.get()), text);
    pin.length = std::size_t(end - reinterpret_cast<char*>(pin.bytes.get()));
    std::lock_guard<std::mutex> lock(liveMutex());
    liveBuffers()[pin.bytes.get()] = pin.capacity;
    return pin;
}

SecretPin::~SecretPin()
{
    wipeBytes();
}

SecretPin::SecretPin(SecretPin&& other) noexcept
    : bytes(std::move(other.bytes)),
      length(std::exchange(other.length, 0)),
      capacity(other.capacity)
{
}

SecretPin& SecretPin::operator=(SecretPin&& other) noexcept
{
    if (this != &other) {
        wipeBytes();
        bytes = std::move(other.bytes);
        length = std::exchange(other.length, 0);
        capacity = other.capacity;
    }
    return *this;
}

// Overwrites the bytes and forgets them: the owner frees or replaces them right after. A
// moved-from PIN has none.
void SecretPin::wipeBytes()
{
    if (!bytes)
        return;
    std::lock_guard<std::mutex> lock(liveMutex());
    OPENSSL_cleanse(bytes.get(), capacity);
    liveBuffers().erase(bytes.get());
}

void SecretPin::wipeAll()
{
    std::lock_guard<std::mutex> lock(liveMutex());
    for (const auto& [buffer, size] : liveBuffers())
        OPENSSL_cleanse(buffer, size);
}

void SecretPin::wipe(QString& text)
{
    // Only a heap buffer is written to; a literal's characters live in read-only memory and
    // never held a secret.
    if (!text.isEmpty() && text.data_ptr().d_ptr())
        OPENSSL_cleanse(const_cast<QChar*>(text.constData()), std::size_t(text.size()) * sizeof(QChar));
    text = QString();
}
