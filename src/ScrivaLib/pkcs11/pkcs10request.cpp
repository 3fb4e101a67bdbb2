#include "pkcs10request.h"

#include "appexception.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/buffer.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/objects.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>

namespace {

void freeOpenSslBytes(unsigned char* bytes) { OPENSSL_free(bytes); }

// DER of an ASN.1 object through its i2d function, which allocates the buffer; empty on failure
// (the buffer stays null then, and no DER encoding is empty).
template<typename T, typename Encoder>
QByteArray toDer(Encoder encode, T* object)
{
    unsigned char* der = nullptr;
    const int length = encode(object, &der);
    const Owned<unsigned char, freeOpenSslBytes> owner(der);
    return QByteArray(reinterpret_cast<const char*>(der), length);
}

bool isHexText(const QString& text)
{
    if (text.size() % 2 != 0)
        return false;
    for (const QChar c : text)
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))
              || (c >= QLatin1Char('A') && c <= QLatin1Char('F'))))
            return false;
    return true;
}

const unsigned char* asBytes(const QByteArray& data) { return reinterpret_cast<const unsigned char*>(data.constData()); }

} // namespace

Pkcs10Request::Pkcs10Request() = default;

Pkcs10Request::~Pkcs10Request() = default;

void Pkcs10Request::setRsaPublicKey(const QByteArray& modulus, const QByteArray& exponent)
{
    if (publicKey)
        throw APP_EXCEPTION(QStringLiteral("EVP_PKEY is already set"));

    Owned<BIGNUM, BN_free> n(BN_bin2bn(asBytes(modulus), modulus.size(), nullptr));
    if (!n)
        throw APP_EXCEPTION(QStringLiteral("Unable to convert modulus to BIGNUM"));
    Owned<BIGNUM, BN_free> e(BN_bin2bn(asBytes(exponent), exponent.size(), nullptr));
    if (!e)
        throw APP_EXCEPTION(QStringLiteral("Unable to convert exponent to BIGNUM"));

    Owned<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free> builder(OSSL_PARAM_BLD_new());
    if (!builder)
        throw APP_EXCEPTION(QStringLiteral("Unable to create OSSL_PARAM_BLD object"));
    if (!OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get()))
        throw APP_EXCEPTION(QStringLiteral("Unable to create OSSL_PARAM object for modulus"));
    if (!OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get()))
        throw APP_EXCEPTION(QStringLiteral("Unable to create OSSL_PARAM object for exponent"));
    Owned<OSSL_PARAM, OSSL_PARAM_free> params(OSSL_PARAM_BLD_to_param(builder.get()));
    if (!params)
        throw APP_EXCEPTION(QStringLiteral("Unable to create array of OSSL_PARAM objects"));

    Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    if (!context)
        throw APP_EXCEPTION(QStringLiteral("Unable to create EVP_PKEY_CTX object"));
    if (EVP_PKEY_fromdata_init(context.get()) <= 0)
        throw APP_EXCEPTION(QStringLiteral("Function EVP_PKEY_fromdata_init failed for public RSA key"));
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) <= 0 || !key) {
        EVP_PKEY_free(key);
        throw APP_EXCEPTION(QStringLiteral("Function EVP_PKEY_fromdata failed for public RSA key"));
    }
    publicKey.reset(key);
}

void Pkcs10Request::setSubject(const QString& subjectHex)
{
    if (subject)
        throw APP_EXCEPTION(QStringLiteral("X509_NAME is already set"));
    if (!isHexText(subjectHex))
        throw APP_EXCEPTION(QStringLiteral("Unable to HEX decode subject"));
    const QByteArray der = QByteArray::fromHex(subjectHex.toLatin1());

    const unsigned char* in = asBytes(der);
    Owned<X509_NAME, X509_NAME_free> name(d2i_X509_NAME(nullptr, &in, der.size()));
    // Bytes after the Name would be silently dropped; such a subject is not what was asked for.
    if (!name || in != asBytes(der) + der.size())
        throw APP_EXCEPTION(QStringLiteral("Unable to DER decode subject"));
    subject = std::move(name);
}

Owned<X509_ATTRIBUTE, X509_ATTRIBUTE_free> Pkcs10Request::createAttribute(const char* oid, const QByteArray& derValue,
                                                                         const QString& attributeName)
{
    Owned<ASN1_OBJECT, ASN1_OBJECT_free> object(OBJ_txt2obj(oid, 1));
    if (!object)
        throw APP_EXCEPTION(QStringLiteral("Function OBJ_txt2obj failed for %1 attribute").arg(attributeName));
    // V_ASN1_SET takes the bytes as one complete DER element and writes them unchanged.
    Owned<X509_ATTRIBUTE, X509_ATTRIBUTE_free> attribute(
        X509_ATTRIBUTE_create_by_OBJ(nullptr, object.get(), V_ASN1_SET, derValue.constData(), derValue.size()));
    if (!attribute)
        throw APP_EXCEPTION(
            QStringLiteral("Function X509_ATTRIBUTE_create_by_OBJ failed for %1 attribute").arg(attributeName));
    return attribute;
}

void Pkcs10Request::setKovDataAttibute(const QByteArray& data)
{
    if (kovDataAttribute)
        throw APP_EXCEPTION(QStringLiteral("X509_ATTRIBUTE is already set for KovData attribute"));
    kovDataAttribute = createAttribute(kovDataOid, data, QStringLiteral("KovData"));
}

void Pkcs10Request::setEnrollmentCspProviderAttribute(const QString& providerName)
{
    if (enrollmentCspProviderAttribute)
        throw APP_EXCEPTION(QStringLiteral("X509_ATTRIBUTE is already set for EnrollmentCspProvider attribute"));

    Owned<ASN1_INTEGER, ASN1_INTEGER_free> keySpec(ASN1_INTEGER_new());
    if (!keySpec)
        throw APP_EXCEPTION(QStringLiteral("Function ASN1_INTEGER_new failed for EnrollmentCspProvider attribute"));
    if (!ASN1_INTEGER_set(keySpec.get(), 1))
        throw APP_EXCEPTION(QStringLiteral("Function ASN1_INTEGER_set failed for EnrollmentCspProvider attribute"));
    const QByteArray keySpecDer = toDer(i2d_ASN1_INTEGER, keySpec.get());
    if (keySpecDer.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Function i2d_ASN1_INTEGER failed for EnrollmentCspProvider attribute"));

    const QByteArray utf8 = providerName.toUtf8();
    unsigned char* uni = nullptr;
    int uniLength = 0;
    Owned<unsigned char, freeOpenSslBytes> unicode(OPENSSL_utf82uni(utf8.constData(), utf8.size(), &uni, &uniLength));
    if (!unicode || uniLength < 2)
        throw APP_EXCEPTION(QStringLiteral("Function OPENSSL_utf82uni failed for EnrollmentCspProvider attribute"));
    Owned<ASN1_BMPSTRING, ASN1_BMPSTRING_free> name(ASN1_BMPSTRING_new());
    if (!name)
        throw APP_EXCEPTION(QStringLiteral("Function ASN1_BMPSTRING_new failed for EnrollmentCspProvider attribute"));
    // The converter appends a two-byte terminator; a BMPString carries only the characters.
    if (!ASN1_STRING_set(name.get(), unicode.get(), uniLength - 2))
        throw APP_EXCEPTION(QStringLiteral("Function ASN1_STRING_set failed for EnrollmentCspProvider attribute"));
    const QByteArray nameDer = toDer(i2d_ASN1_BMPSTRING, name.get());
    if (nameDer.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Function i2d_ASN1_BMPSTRING failed for EnrollmentCspProvider attribute"));

    Owned<ASN1_BIT_STRING, ASN1_BIT_STRING_free> signature(ASN1_BIT_STRING_new());
    if (!signature)
        throw APP_EXCEPTION(QStringLiteral("Function ASN1_BIT_STRING_new failed for EnrollmentCspProvider attribute"));
    const QByteArray signatureDer = toDer(i2d_ASN1_BIT_STRING, signature.get());
    if (signatureDer.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Function i2d_ASN1_BIT_STRING failed for EnrollmentCspProvider attribute"));

    // The three encodings wrapped as an OCTET STRING get their length octets from the encoder;
    // turning the tag 0x04 into 0x30 then makes the SEQUENCE.
    const QByteArray content = keySpecDer + nameDer + signatureDer;
    Owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> octets(ASN1_OCTET_STRING_new());
    if (!octets)
        throw APP_EXCEPTION(QStringLiteral("Function ASN1_OCTET_STRING_new failed for EnrollmentCspProvider attribute"));
    if (!ASN1_OCTET_STRING_set(octets.get(), asBytes(content), content.size()))
        throw APP_EXCEPTION(QStringLiteral("Function ASN1_OCTET_STRING_set failed for EnrollmentCspProvider attribute"));
    QByteArray sequence = toDer(i2d_ASN1_OCTET_STRING, octets.get());
    if (sequence.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Function i2d_ASN1_OCTET_STRING failed for EnrollmentCspProvider attribute"));
    sequence[0] = char(0x30);

    enrollmentCspProviderAttribute = createAttribute(enrollmentCspProviderOid, sequence,
                                                     QStringLiteral("EnrollmentCspProvider"));
}

QByteArray Pkcs10Request::getDerEncodedCertificationRequestInfo()
{
    if (!publicKey)
        throw APP_EXCEPTION(QStringLiteral("EVP_PKEY is not set"));
    if (!subject)
        throw APP_EXCEPTION(QStringLiteral("X509_NAME is not set"));
    if (request)
        throw APP_EXCEPTION(QStringLiteral("X509_REQ is already set"));

    Owned<X509_REQ, X509_REQ_free> built(X509_REQ_new());
    if (!built)
        throw APP_EXCEPTION(QStringLiteral("Unable to allocate X509_REQ structure"));
    if (!X509_REQ_set_version(built.get(), 0))
        throw APP_EXCEPTION(QStringLiteral("Function X509_REQ_set_version failed"));
    if (!X509_REQ_set_subject_name(built.get(), subject.get()))
        throw APP_EXCEPTION(QStringLiteral("Function X509_REQ_set_subject_name failed"));
    if (!X509_REQ_set_pubkey(built.get(), publicKey.get()))
        throw APP_EXCEPTION(QStringLiteral("Function X509_REQ_set_pubkey failed"));
    if (kovDataAttribute && !X509_REQ_add1_attr(built.get(), kovDataAttribute.get()))
        throw APP_EXCEPTION(QStringLiteral("Function X509_REQ_add1_attr failed for KovData attribute"));
    if (enrollmentCspProviderAttribute && !X509_REQ_add1_attr(built.get(), enrollmentCspProviderAttribute.get()))
        throw APP_EXCEPTION(QStringLiteral("Function X509_REQ_add1_attr failed for EnrollmentCspProvider attribute"));

    const QByteArray info = toDer(i2d_re_X509_REQ_tbs, built.get());
    if (info.isEmpty())
        throw APP_EXCEPTION(QStringLiteral("Unable to DER encode X509_REQ_INFO structure"));
    request = std::move(built);
    return info;
}

QByteArray Pkcs10Request::createPkcs1DigestInfo(const QByteArray& hash, CK_MECHANISM_TYPE digestMechanism)
{
    // DigestInfo headers of RFC 8017, section 9.2, note 1.
    static const QByteArray sha1 = QByteArray::fromHex("3021300906052b0e03021a05000414");
    static const QByteArray sha256 = QByteArray::fromHex("3031300d060960864801650304020105000420");
    static const QByteArray sha384 = QByteArray::fromHex("3041300d060960864801650304020205000430");
    static const QByteArray sha512 = QByteArray::fromHex("3051300d060960864801650304020305000440");
    switch (digestMechanism) {
    case CKM_SHA_1: return sha1 + hash;
    case CKM_SHA256: return sha256 + hash;
    case CKM_SHA384: return sha384 + hash;
    case CKM_SHA512: return sha512 + hash;
    default: throw APP_EXCEPTION(QStringLiteral("AlgorithmNotSupported"));
    }
}

void Pkcs10Request::setSignature(const QByteArray& signature, unsigned long digestMechanism,
                                 unsigned long signingMechanism)
{
    if (signingMechanism != CKM_RSA_PKCS)
        throw APP_EXCEPTION(QStringLiteral("Signing mechanism %1 is not supported").arg(signingMechanism));
    int algorithmNid = NID_undef;
    switch (digestMechanism) {
    case CKM_SHA_1: algorithmNid = NID_sha1WithRSAEncryption; break;
    case CKM_SHA256: algorithmNid = NID_sha256WithRSAEncryption; break;
    case CKM_SHA384: algorithmNid = NID_sha384WithRSAEncryption; break;
    case CKM_SHA512: algorithmNid = NID_sha512WithRSAEncryption; break;
    default: throw APP_EXCEPTION(QStringLiteral("Digesting mechanism %1 is not supported").arg(digestMechanism));
    }
    if (!request)
        throw APP_EXCEPTION(QStringLiteral("X509_REQ is not set"));

    Owned<X509_ALGOR, X509_ALGOR_free> algorithm(X509_ALGOR_new());
    if (!algorithm)
        throw APP_EXCEPTION(QStringLiteral("Unable to allocate X509_ALGOR structure"));
    if (!X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(algorithmNid), V_ASN1_NULL, nullptr))
        throw APP_EXCEPTION(QStringLiteral("Function X509_ALGOR_set0 failed"));
    if (!X509_REQ_set1_signature_algo(request.get(), algorithm.get()))
        throw APP_EXCEPTION(QStringLiteral("Function X509_REQ_set1_signature_algo failed"));

    Owned<ASN1_BIT_STRING, ASN1_BIT_STRING_free> bits(ASN1_BIT_STRING_new());
    if (!bits)
        throw APP_EXCEPTION(QStringLiteral("Unable to allocate ASN1_BIT_STRING structure"));
    if (!ASN1_BIT_STRING_set(bits.get(), const_cast<unsigned char*>(asBytes(signature)), signature.size()))
        throw APP_EXCEPTION(QStringLiteral("Unable to set ASN1 BIT STRING"));
    // Whole bytes: no unused bits, whatever the last byte's trailing zeros.
    bits->flags &= ~0x07L;
    bits->flags |= ASN1_STRING_FLAG_BITS_LEFT;
    X509_REQ_set0_signature(request.get(), bits.release());
}

QByteArray Pkcs10Request::getPemEncodedRequest() const
{
    if (!request)
        throw APP_EXCEPTION(QStringLiteral("X509_REQ is not set"));
    Owned<BIO, BIO_free> bio(BIO_new(BIO_s_mem()));
    if (!bio)
        throw APP_EXCEPTION(QStringLiteral("Unable to allocate BIO structure"));
    if (!PEM_write_bio_X509_REQ(bio.get(), request.get()))
        throw APP_EXCEPTION(QStringLiteral("Unable to PEM encode X509_REQ structure"));
    BUF_MEM* memory = nullptr;
    BIO_get_mem_ptr(bio.get(), &memory);
    return QByteArray(memory->data, static_cast<qsizetype>(memory->length));
}
