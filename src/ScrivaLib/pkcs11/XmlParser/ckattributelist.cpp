#include "ckattributelist.h"

#include <QtGlobal>

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

CkAttributeList::~CkAttributeList()
{
    clear();
}

CkAttributeList::CkAttributeList(CkAttributeList&& other) noexcept : list(std::exchange(other.list, {})) {}

CkAttributeList& CkAttributeList::operator=(CkAttributeList&& other) noexcept
{
    if (this != &other) {
        clear();
        list = std::exchange(other.list, {});
    }
    return *this;
}

void CkAttributeList::append(const CK_ATTRIBUTE& attribute)
{
    try {
        list.append(attribute);
    } catch (...) {
        std::free(attribute.pValue);
        throw;
    }
}

CkAttributeList CkAttributeList::clone() const
{
    CkAttributeList copy;
    copy.list.reserve(list.size());
    for (const CK_ATTRIBUTE& attribute : list) {
        CK_ATTRIBUTE duplicate = attribute;
        if (attribute.pValue) {
            duplicate.pValue = std::malloc(qMax<size_t>(attribute.ulValueLen, 1));
            if (!duplicate.pValue)
                throw std::bad_alloc();
            std::memcpy(duplicate.pValue, attribute.pValue, attribute.ulValueLen);
        }
        copy.append(duplicate);
    }
    return copy;
}

void CkAttributeList::clear() noexcept
{
    for (CK_ATTRIBUTE& attribute : list)
        std::free(attribute.pValue);
    list.clear();
}
