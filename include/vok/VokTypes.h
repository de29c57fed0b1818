// Basic types shared by every part of the framework.
#ifndef VOK_VOKTYPES_H
#define VOK_VOKTYPES_H

#include <cstdint>

namespace vok {

// The framework's one-byte truth type: 1 true, 0 false.
typedef uint8_t Boolean;

// Base of the framework's fronts: copying and assignment are forbidden.
class Uncopyable {
  protected:
    Uncopyable() = default;
    ~Uncopyable() = default;

  private:
    Uncopyable(const Uncopyable&);
    Uncopyable& operator=(const Uncopyable&);
};

// Base of shared implementation objects. The count starts at 1 (the reference of the object's
// creator, normally its front object). Taking and dropping happen on the owning thread only;
// the count is not atomic. A running callback holds a reference of its own, so the front may be
// destroyed inside it and the implementation dies when the callback returns.
class RefCounted {
  public:
    // Starts with one reference, the creator's.
    RefCounted() : m_refCount(1) {}
    virtual ~RefCounted() = default;

  protected:
    // A reference of its own for the lifetime of a scope (a running callback's): taken on
    // construction, dropped on destruction.
    class Holder {
      public:
        // Takes a reference on object.
        explicit Holder(RefCounted* object) : object_(object) { ++object_->m_refCount; }
        ~Holder() { object_->DropRef(); }
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;

      private:
        RefCounted* object_;
    };

    // Drops one reference and destroys the object when it was the last.
    void DropRef() {
        if (--m_refCount == 0) {
            delete this;
        }
    }

    // References held; the object is deleted when it drops to 0.
    uint32_t m_refCount;
};

}  // namespace vok

#endif  // VOK_VOKTYPES_H
