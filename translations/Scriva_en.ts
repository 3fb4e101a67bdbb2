<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US">
<context>
    <name>MainWindowPkcs11</name>
    <message>
        <source>Corvant Scriva</source>
        <translation>Corvant Scriva</translation>
    </message>
    <message>
        <source>Please wait...</source>
        <translation>Please wait...</translation>
    </message>
    <message>
        <source>AppName</source>
        <translation>Corvant Scriva</translation>
    </message>
    <message>
        <source>Pkcs11FileDialogText</source>
        <translation>Select the PKCS#11 library of your token</translation>
    </message>
    <message>
        <source>GetSlotsDescription</source>
        <translation>Looking for your tokens...</translation>
    </message>
    <message>
        <source>GetCertificatesDescription</source>
        <translation>Reading the certificates on your token...</translation>
    </message>
    <message>
        <source>GenerateCsrDescription</source>
        <translation>Generating a key pair and a certificate request on your token...</translation>
    </message>
    <message>
        <source>CreateObjectDescription</source>
        <translation>Storing the certificate on your token...</translation>
    </message>
</context>
</TS>
