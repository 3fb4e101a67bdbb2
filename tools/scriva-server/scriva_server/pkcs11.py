"""The PKCS#11 numbers a request names: attribute types, object classes and mechanisms.

Requests carry attribute types and mechanisms as plain numbers; these are the standard's values
of the ones a server needs for enrolment. Any other number of the standard, or of a token
maker's vendor range, may be used as well."""

# Attribute types (CKA_)
CKA_CLASS = 0x0
CKA_TOKEN = 0x1
CKA_PRIVATE = 0x2
CKA_LABEL = 0x3
CKA_VALUE = 0x11
CKA_CERTIFICATE_TYPE = 0x80
CKA_ISSUER = 0x81
CKA_KEY_TYPE = 0x100
CKA_SUBJECT = 0x101
CKA_ID = 0x102
CKA_SENSITIVE = 0x103
CKA_DECRYPT = 0x105
CKA_SIGN = 0x108
CKA_VERIFY = 0x10A
CKA_START_DATE = 0x110
CKA_END_DATE = 0x111
CKA_MODULUS_BITS = 0x121
CKA_PUBLIC_EXPONENT = 0x122
CKA_EXTRACTABLE = 0x162

# Object classes (CKO_), certificate types (CKC_), key types (CKK_)
CKO_CERTIFICATE = 0x1
CKO_PUBLIC_KEY = 0x2
CKO_PRIVATE_KEY = 0x3
CKC_X_509 = 0x0
CKK_RSA = 0x0

# Mechanisms (CKM_): the host builds certificate requests for RSA keys, signed with PKCS#1 v1.5
# over one of these digests.
CKM_RSA_PKCS_KEY_PAIR_GEN = 0x0
CKM_RSA_PKCS = 0x1
CKM_SHA_1 = 0x220
CKM_SHA256 = 0x250
CKM_SHA384 = 0x260
CKM_SHA512 = 0x270
DIGESTS = {CKM_SHA_1: "sha1", CKM_SHA256: "sha256", CKM_SHA384: "sha384", CKM_SHA512: "sha512"}
