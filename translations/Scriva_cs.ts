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
    <message>
        <source>MainWindowDescription</source>
        <translation>Pracuje s vaším tokenem pro webovou stránku, která o to požádala</translation>
    </message>
    <message>
        <source>WaitAnimationName</source>
        <translation>Pracuji</translation>
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
        <translation>Zadejte PIN</translation>
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
        <translation>Zrušit</translation>
    </message>
    <message>
        <source>PinFormInformation</source>
        <translation>Zadejte %1 vašeho tokenu</translation>
    </message>
    <message>
        <source>PinFormTokenTitle</source>
        <translation>Token:</translation>
    </message>
    <message>
        <source>PinFormSlotTitle</source>
        <translation>Čtečka:</translation>
    </message>
    <message>
        <source>SavePINText</source>
        <translation>Pamatovat si PIN do konce operace</translation>
    </message>
    <message>
        <source>PinFormPinTitle</source>
        <translation>PIN:</translation>
    </message>
    <message>
        <source>PinFormCountLow</source>
        <translation>Od posledního úspěšného přihlášení byl zadán chybný PIN.</translation>
    </message>
    <message>
        <source>PinFormFinalTry</source>
        <translation>Toto je poslední pokus před zablokováním PINu.</translation>
    </message>
    <message>
        <source>PinFormWarningIcon</source>
        <translation>Varování</translation>
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
        <translation>Zadaný %1 není správný. Zkuste to prosím znovu.</translation>
    </message>
</context>
<context>
    <name>TitleBar</name>
    <message>
        <source>Close</source>
        <translation>Zavřít</translation>
    </message>
</context>
</TS>
