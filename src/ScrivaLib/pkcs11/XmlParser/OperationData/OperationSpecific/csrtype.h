#pragma once

// Kind of certificate request a GenerateCsr request asks for.
enum class CsrType { PKCS10 = 0 };
