<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="cs_CZ">
<context>
    <name>MainWindowPkcs11</name>
    <message>
        <source>Corvant Scriva</source>
        <translation>Corvant Scriva</translation>
    </message>
    <message>
        <source>Please wait...</source>
        <translation>Čekejte prosím...</translation>
    </message>
    <message>
        <source>AppName</source>
        <translation>Corvant Scriva</translation>
    </message>
    <message>
        <source>Pkcs11FileDialogText</source>
        <translation>Vyberte knihovnu PKCS#11 vašeho tokenu</translation>
    </message>
    <message>
        <source>GetSlotsDescription</source>
        <translation>Hledám vaše tokeny...</translation>
    </message>
    <message>
        <source>GetCertificatesDescription</source>
        <translation>Čtu certifikáty z vašeho tokenu...</translation>
    </message>
    <message>
        <source>GenerateCsrDescription</source>
        <translation>Generuji na vašem tokenu klíčový pár a žádost o certifikát...</translation>
    </message>
    <message>
        <source>CreateObjectDescription</source>
        <translation>Ukládám certifikát na váš token...</translation>
    </message>
</context>
</TS>
