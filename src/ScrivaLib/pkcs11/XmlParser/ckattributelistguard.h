#pragma once

#include "ckattributeparser.h"

#include <QList>

#include <initializer_list>
#include <vector>

// Frees the value buffers of attribute lists that never reached a record. Released once a record
// has taken the buffers over.
class CkAttributeListGuard
{
public:
    explicit CkAttributeListGuard(std::initializer_list<QList<CK_ATTRIBUTE>*> lists) : lists(lists) {}
    ~CkAttributeListGuard()
    {
        if (!released) {
            for (QList<CK_ATTRIBUTE>* list : lists)
                CkAttributeParser::freeAttributeValues(*list);
        }
    }
    CkAttributeListGuard(const CkAttributeListGuard&) = delete;
    CkAttributeListGuard& operator=(const CkAttributeListGuard&) = delete;

    void release() { released = true; }

private:
    const std::vector<QList<CK_ATTRIBUTE>*> lists;
    bool released = false;
};
