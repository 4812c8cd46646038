// The foundation's exceptions.
#pragma once

#include <kestrow/Export.h>

#include <orv/String.h>

namespace orv {

class KESTROW_API Exception {
public:
    explicit Exception(const String& message);
    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    virtual ~Exception();

    const String& message() const noexcept { return m_message; }

private:
    String m_message;
};

// Thrown by a typed hash table lookup that must yield a value when the key
// is absent; carries the key's text.
class KESTROW_API HashKeyMissing : public Exception {
public:
    explicit HashKeyMissing(const String& key);
    HashKeyMissing(const HashKeyMissing& other);
    ~HashKeyMissing() override;

    const String& key() const noexcept { return m_key; }

private:
    String m_key;
};

} // namespace orv
