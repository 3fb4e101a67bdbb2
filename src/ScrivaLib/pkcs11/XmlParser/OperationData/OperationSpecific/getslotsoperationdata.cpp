#include "getslotsoperationdata.h"

#include "appexception.h"

GetSlotsOperationData::GetSlotsOperationData(const GetSlotsOperationData* other)
{
    if (!other)
        throw APP_EXCEPTION(QStringLiteral("Other is NULL!"));
}
