#include "secretpin.h"

#include <QStringEncoder>

#include <openssl/crypto.h>

#include <utility>

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
    return pin;
}

SecretPin::~SecretPin()
{
    clear();
}

SecretPin::SecretPin(SecretPin&& other) noexcept
    : bytes(std::move(other.bytes)),
      length(std::exchange(other.length, 0)),
      capacity(std::exchange(other.capacity, 0))
{
}

SecretPin& SecretPin::operator=(SecretPin&& other) noexcept
{
    if (this != &other) {
        clear();
        bytes = std::move(other.bytes);
        length = std::exchange(other.length, 0);
        capacity = std::exchange(other.capacity, 0);
    }
    return *this;
}

void SecretPin::clear()
{
    if (bytes)
        OPENSSL_cleanse(bytes.get(), capacity);
    bytes.reset();
    length = 0;
    capacity = 0;
}

void SecretPin::wipe(QString& text)
{
    // Only a heap buffer is written to; a literal's characters live in read-only memory and
    // never held a secret.
    if (!text.isEmpty() && text.data_ptr().d_ptr())
        OPENSSL_cleanse(const_cast<QChar*>(text.constData()), std::size_t(text.size()) * sizeof(QChar));
    text = QString();
}
