// Reference-counted ownership of OS descriptors (file handles).
//
// A SharedResource holds a descriptor and a pointer to a manager that counts
// the sharers and closes the descriptor when the last one lets go. An empty
// resource holds the storage's invalid value and no manager.
#pragma once

#include <kestrow/Export.h>
#include <kestrow/WinTypes.h>

#include <orv/String.h>

#include <cstdint>

namespace orv {

// The arguments of an OS file open.
struct KESTROW_API CreateFileOpenArgs {
    CreateFileOpenArgs(const String& path, unsigned int desiredAccess, unsigned int shareMode,
                       unsigned int creationDisposition, unsigned int flagsAndAttributes);

    String path;
    unsigned int desiredAccess;
    unsigned int shareMode;
    unsigned int creationDisposition;
    unsigned int flagsAndAttributes;
};

// Opens and closes OS file handles.
struct KESTROW_API FileHandleResManager {
    // CreateFileW with the arguments (no security attributes, no template);
    // the handle, or INVALID_HANDLE_VALUE.
    static HANDLE open(const CreateFileOpenArgs& args);
    static void destroy(HANDLE& handle);
};

// Describes a kind of descriptor: its type, its invalid value and the
// manager that opens and destroys it.
template <class T, int INVALID, class ResManager> struct DescriptorStorage {
    typedef T Descriptor;
    typedef ResManager Manager;
    static T invalid() noexcept { return (T)(std::intptr_t)INVALID; }
};

class KESTROW_API SharedResourceManagerCommonBase {
public:
    SharedResourceManagerCommonBase() noexcept : m_refCount(1) {}
    virtual ~SharedResourceManagerCommonBase();

    unsigned int m_refCount;
};

class KESTROW_API SharedResourceManagerUnlockedBase : public SharedResourceManagerCommonBase {
public:
    ~SharedResourceManagerUnlockedBase() override;
};

template <class Storage, int LOCKING> class SharedResourceManager;

// The unlocked manager: a plain reference count.
template <class Storage>
class SharedResourceManager<Storage, 0> : public SharedResourceManagerUnlockedBase {
public:
    typedef typename Storage::Descriptor Descriptor;

    explicit SharedResourceManager(Descriptor descriptor) noexcept : m_descriptor(descriptor) {}
    ~SharedResourceManager() override {
        if (m_descriptor != Storage::invalid())
            Storage::Manager::destroy(m_descriptor);
    }
    // Forgets the descriptor without closing it.
    virtual void detach() noexcept { m_descriptor = Storage::invalid(); }

    Descriptor m_descriptor;
};

template <class Storage, int LOCKING = 0> class SharedResource {
public:
    typedef typename Storage::Descriptor Descriptor;
    typedef SharedResourceManager<Storage, LOCKING> Manager;

    SharedResource() noexcept : m_descriptor(Storage::invalid()), m_manager(nullptr) {}
    SharedResource(const SharedResource& other) noexcept
        : m_descriptor(other.m_descriptor), m_manager(other.m_manager) {
        if (m_manager != nullptr)
            ++m_manager->m_refCount;
    }
    SharedResource(SharedResource&& other) noexcept
        : m_descriptor(other.m_descriptor), m_manager(other.m_manager) {
        other.m_descriptor = Storage::invalid();
        other.m_manager = nullptr;
    }
    ~SharedResource() { release(); }

    SharedResource& operator=(const SharedResource& other) noexcept {
        if (this != &other) {
            SharedResource copy(other);
            *this = static_cast<SharedResource&&>(copy);
        }
        return *this;
    }
    SharedResource& operator=(SharedResource&& other) noexcept {
        if (this != &other) {
            release();
            m_descriptor = other.m_descriptor;
            m_manager = other.m_manager;
            other.m_descriptor = Storage::invalid();
            other.m_manager = nullptr;
        }
        return *this;
    }

    // Releases what the resource holds, then opens anew; only a valid result
    // is kept, under a new manager with a count of 1. Returns validity.
    template <class Args> bool open(const Args& args) {
        release();
        Descriptor descriptor = Storage::Manager::open(args);
        if (descriptor != Storage::invalid()) {
            m_manager = new Manager(descriptor);
            m_descriptor = descriptor;
        }
        return isValid();
    }

    // Takes over a descriptor opened directly: a new manager with a count of
    // 1 holds it, valid or not (an invalid one is never closed).
    void wrap(Descriptor descriptor) {
        release();
        m_manager = new Manager(descriptor);
        m_descriptor = descriptor;
    }

    // Drops this sharer; the last one destroys the manager, which closes the
    // descriptor.
    void release() noexcept {
        if (m_manager != nullptr && --m_manager->m_refCount == 0)
            delete m_manager;
        m_manager = nullptr;
        m_descriptor = Storage::invalid();
    }

    bool isValid() const noexcept { return m_descriptor != Storage::invalid(); }
    Descriptor get() const noexcept { return m_descriptor; }
    unsigned int shareCount() const noexcept { return m_manager ? m_manager->m_refCount : 0; }

private:
    Descriptor m_descriptor;
    Manager* m_manager;
};

typedef SharedResource<DescriptorStorage<HANDLE, -1, FileHandleResManager>> SharedFileHandle;

} // namespace orv
