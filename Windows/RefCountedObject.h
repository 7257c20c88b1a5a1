// A base class with a reference count that its owners keep by hand.
//
// Thread safety: none. The count is a plain integer; threads that share an object do so under a lock of
// their own.
// Lifetime: the object begins with one reference, its creator's, and deletes itself with the last.
#ifndef WINDOWS_REFCOUNTEDOBJECT_H
#define WINDOWS_REFCOUNTEDOBJECT_H

class CRefCountedObject {
public:
    CRefCountedObject();

    // Does not look at the count.
    virtual ~CRefCountedObject();

    // Takes one reference more.
    void AddRef();

    // Gives one reference back and deletes the object, which then must come from new, if that was the last. A
    // count that was 0 or below goes negative, and nothing is deleted.
    void RealRelease();

private:
    int m_nRefCount;
};

#endif
