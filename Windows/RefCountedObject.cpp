#include <Windows/RefCountedObject.h>

CRefCountedObject::CRefCountedObject() : m_nRefCount(1) {}

CRefCountedObject::~CRefCountedObject() = default;

void CRefCountedObject::AddRef() { ++m_nRefCount; }

void CRefCountedObject::RealRelease() {
    if (--m_nRefCount == 0)
        delete this;
}
