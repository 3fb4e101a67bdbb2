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
    <message>
        <source>MainWindowDescription</source>
        <translation>Works with your token for the web page that asked for it</translation>
    </message>
    <message>
        <source>WaitAnimationName</source>
        <translation>Working</translation>
    </message>
</context>
<context>
    <name>PinForm</name>
    <message>
        <source>Corvant Scriva</source>
        <translation>Corvant Scriva</translation>
    </message>
    <message>
        <source>AppName</source>
        <translation>Corvant Scriva</translation>
    </message>
    <message>
        <source>Insert PIN</source>
        <translation>Insert PIN</translation>
    </message>
    <message>
        <source>Token:</source>
        <translation>Token:</translation>
    </message>
    <message>
        <source>Slot:</source>
        <translation>Slot:</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Cancel</translation>
    </message>
    <message>
        <source>PinFormInformation</source>
        <translation>Enter %1 of your token</translation>
    </message>
    <message>
        <source>PinFormTokenTitle</source>
        <translation>Token:</translation>
    </message>
    <message>
        <source>PinFormSlotTitle</source>
        <translation>Reader:</translation>
    </message>
    <message>
        <source>SavePINText</source>
        <translation>Remember the PIN until the operation ends</translation>
    </message>
    <message>
        <source>PinFormPinTitle</source>
        <translation>PIN:</translation>
    </message>
    <message>
        <source>PinFormCountLow</source>
        <translation>A wrong PIN has been entered since the last successful login.</translation>
    </message>
    <message>
        <source>PinFormFinalTry</source>
        <translation>This is the last try before the PIN is blocked.</translation>
    </message>
    <message>
        <source>PinFormWarningIcon</source>
        <translation>Warning</translation>
    </message>
</context>
<context>
    <name>Pkcs11Library</name>
    <message>
        <source>AppName</source>
        <translation>Corvant Scriva</translation>
    </message>
    <message>
        <source>PinIncorrect</source>
        <translation>The %1 you entered is not correct. Please try again.</translation>
    </message>
</context>
<context>
    <name>TitleBar</name>
    <message>
        <source>Close</source>
        <translation>Close</translation>
    </message>
</context>
</TS>
