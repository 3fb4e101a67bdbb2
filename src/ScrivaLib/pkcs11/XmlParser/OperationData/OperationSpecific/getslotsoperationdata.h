#pragma once

// GetSlots needs nothing beyond the library data.
class GetSlotsOperationData
{
public:
    GetSlotsOperationData() = default;
    // Copies another record; refuses a null pointer.
    explicit GetSlotsOperationData(const GetSlotsOperationData* other);
};
