#pragma once
// Temporary images that algorithms allocate for the length of one run, in memory or on disk.
#include <atomic>
#include <memory>
#include <string>

#include "host/Image.h"

namespace lyn {

// Intrusively reference-counted base.
class Object {
public:
    virtual ~Object();
    void addReference() const { m_refs.fetch_add(1, std::memory_order_relaxed); }
    void removeReference() const {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

private:
    mutable std::atomic<long> m_refs{0};
};

// Reference-counting handle; dereferencing an empty handle raises the host's null-dereference error.
template <class T>
class RefImpl {
public:
    RefImpl() = default;
    explicit RefImpl(const Object* object) { assign(const_cast<Object*>(object)); }
    RefImpl(const RefImpl& other) { assign(other.m_object); }
    RefImpl& operator=(const RefImpl& other) {
        assign(other.m_object);
        return *this;
    }
    ~RefImpl() { assign(nullptr); }

    void assign(Object* object) {
        if (object) object->addReference();
        if (m_object) m_object->removeReference();
        m_object = object;
    }
    T* operator->() const {
        if (!m_object) nullDereferenceError();
        return static_cast<T*>(m_object);
    }
    T& operator*() const { return *operator->(); }
    T* get() const { return static_cast<T*>(m_object); }
    explicit operator bool() const { return m_object != nullptr; }

    [[noreturn]] static void nullDereferenceError();

private:
    Object* m_object = nullptr;
};

void raiseNullDereference();
template <class T>
void RefImpl<T>::nullDereferenceError() {
    raiseNullDereference();
    __builtin_unreachable();
}

namespace io {

// Where temporary images on disk go: LYN_TMPDIR, else $TMPDIR, else /tmp.
std::string temporaryDirectory();

class TemporaryImage : public Object {
public:
    enum LocationMode { InMemory = 1, OnDisk = 2 };

    static RefImpl<TemporaryImage> New(LocationMode mode);

    // Gives the image a type and extents; false when the storage could not be had (then
    // getFailure() says why). On disk, the image is an unnamed file in LYN_TMPDIR, else $TMPDIR, else
    // /tmp: nothing is left behind whichever way the process ends.
    bool reserve(const VoxelTypes& type, unsigned long cols, unsigned long rows, unsigned long plans,
                 unsigned long sequence, unsigned long spectral);
    ImageModel* getImageModel() { return m_memory ? static_cast<ImageModel*>(m_memory.get()) : m_disk.get(); }
    const std::string& getFailure() const { return m_failure; }
    LocationMode getLocationMode() const { return m_mode; }

    ~TemporaryImage() override;

private:
    explicit TemporaryImage(LocationMode mode) : m_mode(mode) {}
    LocationMode m_mode;
    std::unique_ptr<MemoryImage> m_memory;
    std::unique_ptr<ImageModel> m_disk;
    std::string m_failure;
};

} // namespace io
} // namespace lyn
