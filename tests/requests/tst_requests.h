#pragma once

#include <QLoggingCategory>
#include <QObject>

class TestRequests : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        Q_INIT_RESOURCE(scriva);
        // Progress lines of the parser are not what these tests look at.
        QLoggingCategory::setFilterRules(QStringLiteral("*.info=false\n*.debug=false"));
    }

    void schemaDecidesValidity_data();
    void schemaDecidesValidity();
    void validationReportsWhy_data();
    void validationReportsWhy();
    void choosesSchemaByRawTextOlderVersionFirst_data();
    void choosesSchemaByRawTextOlderVersionFirst();

    void readsLibraryAndNonce_data();
    void readsLibraryAndNonce();
    void readsPinFormFlagsOnlyFromExactTrue_data();
    void readsPinFormFlagsOnlyFromExactTrue();
    void readsTokenIdentification_data();
    void readsTokenIdentification();
    void readsCreateObjectTemplateInOrder();
    void readsGenerateCsrRequest_data();
    void readsGenerateCsrRequest();
    void refusesWhatTheSchemaLetsThrough_data();
    void refusesWhatTheSchemaLetsThrough();
    void readingRoutinesRefuse_data();
    void readingRoutinesRefuse();
    void readingRoutinesStopAtTheirEndTag();
    void externalEntitiesAreNeverLoaded();

    void encodesAttributeValues_data();
    void encodesAttributeValues();
    void refusesAttributeValues_data();
    void refusesAttributeValues();
    void attributeParserRefusesNullOutput();

    void recordsRefuseWithTheirOwnTexts();
    void recordCopiesOwnTheirValueBuffers();

    void parseOpensSignedEnvelopeFirst();
    void parseRefusesUntrustedSigner();
    void describesEachOperation();
};
