#pragma once

#include <p11-kit/pkcs11.h>

#include <QList>

// A template of CK_ATTRIBUTEs that owns their value buffers (made with malloc) and frees them when
// it goes. Move-only, so a buffer never has two owners; clone() makes a copy with buffers of its own.
class CkAttributeList
{
public:
    CkAttributeList() = default;
    ~CkAttributeList();
    CkAttributeList(CkAttributeList&& other) noexcept;
    CkAttributeList& operator=(CkAttributeList&& other) noexcept;
    CkAttributeList(const CkAttributeList&) = delete;
    CkAttributeList& operator=(const CkAttributeList&) = delete;

    // Takes over the attribute's value buffer, also when the list cannot grow (the buffer is then
    // freed and std::bad_alloc thrown).
    void append(const CK_ATTRIBUTE& attribute);
    // Throws std::bad_alloc when memory runs out; nothing is left allocated then.
    CkAttributeList clone() const;

    const QList<CK_ATTRIBUTE>& attributes() const { return list; }
    bool isEmpty() const { return list.isEmpty(); }
    qsizetype size() const { return list.size(); }

private:
    void clear() noexcept;

    QList<CK_ATTRIBUTE> list;
};
