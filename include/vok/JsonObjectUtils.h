// Read-only iteration over the pairs of a JSON object.
#ifndef VOK_JSONOBJECTUTILS_H
#define VOK_JSONOBJECTUTILS_H

#include <vok/JsonToken.h>

namespace vok {

struct JsonObjectConstIterInitInfo;

// Walks the pairs of an object token. Dereferencing yields the pair's name (json-c's key string)
// and its value as a JsonToken proxy holding its own reference, so the value stays valid while
// the iterator lives. The object is not owned: dereferencing a fresh position or moving the
// iterator requires the object to be alive and no pair to have been added since the iterator
// was made. Built by JsonToken::ObjectBegin and ObjectEnd; a default iterator is unpopulated.
// Copyable. One thread at a time.
class JsonObjectConstIterator {
  public:
    // What dereferencing the iterator gives.
    struct NameValuePair {
        // NULL until dereferenced.
        const char* name;
        // The proxy when the iterator is populated, NULL when unpopulated.
        const JsonToken* value;
    };

    // An unpopulated iterator.
    JsonObjectConstIterator();
    // Used by JsonToken to place an iterator on its object.
    explicit JsonObjectConstIterator(const JsonObjectConstIterInitInfo& initInfo);
    // Copies stand at the same pair, with a reference of their own.
    JsonObjectConstIterator(const JsonObjectConstIterator& other);
    JsonObjectConstIterator& operator=(const JsonObjectConstIterator& other);
    ~JsonObjectConstIterator();

    // False for a default-constructed iterator.
    bool IsPopulated() const;
    // The current pair. Throws when unpopulated or at the end.
    const NameValuePair& operator*() const;
    const NameValuePair* operator->() const;
    // Throws when either iterator is unpopulated.
    bool operator==(const JsonObjectConstIterator& other) const;
    bool operator!=(const JsonObjectConstIterator& other) const;
    // Next pair. Throws when unpopulated or at the end.
    JsonObjectConstIterator& operator++();
    // other must not be NULL (assertion).
    void Swap(JsonObjectConstIterator* other);

  private:
    class JsonObjectConstIterState {
      public:
        JsonObjectConstIterState();
        void Init(const JsonObjectConstIterInitInfo* initInfo);
        void CopyFrom(const JsonObjectConstIterState& other);
        void Swap(JsonObjectConstIterState* other);
        const NameValuePair* PeekPopulatedNameValuePtr();
        void AdvanceForward();
        bool Equals(const JsonObjectConstIterState& other) const;
        bool IsPopulated() const { return pair_.value != nullptr; }
        void SetPopulated(bool populated);

        // json-c's object iterator (struct json_object_iterator), kept opaque here; its size is
        // checked where it is used.
        alignas(void*) unsigned char iter_[sizeof(void*)];
        // A reference on the current value, filled on first dereference.
        JsonToken proxy_;
        NameValuePair pair_;
    };

    void ConstructStateHelper(const JsonObjectConstIterInitInfo* initInfo);

    JsonObjectConstIterState* pState_;
    JsonObjectConstIterState state_;
};

}  // namespace vok

#endif  // VOK_JSONOBJECTUTILS_H
