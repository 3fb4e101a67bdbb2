#pragma once

#include <QString>

// The token whose certificates are read.
class GetCertificatesOperationData
{
public:
    GetCertificatesOperationData(const QString& tokenSerialNumber, const QString& tokenLabel);
    // Copies another record; refuses a null pointer.
    explicit GetCertificatesOperationData(const GetCertificatesOperationData* other);

    const QString& getTokenSerialNumber() const { return tokenSerialNumber; }
    // Empty unless a 2026-02-04 request named the label.
    const QString& getTokenLabel() const { return tokenLabel; }

private:
    QString tokenSerialNumber;
    QString tokenLabel;
};
