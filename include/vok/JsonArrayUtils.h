// Read-only iteration over a JSON array.
#ifndef VOK_JSONARRAYUTILS_H
#define VOK_JSONARRAYUTILS_H

#include <cstdint>

#include <vok/JsonToken.h>

namespace vok {

struct JsonArrayConstIterInitInfo;

// Walks an array token by index. The current element is presented as a JsonToken proxy holding
// its own reference on the element, so the element stays valid while the iterator lives even if
// the container changes. The array itself is not owned: moving the iterator (++) requires the
// array to be alive. Built by JsonToken::ArrayBegin, ArrayEnd and ArrayGetValueAt; a default
// iterator is unpopulated, and comparing or moving it throws. Copyable. One thread at a time.
class JsonArrayConstIterator {
  public:
    // An unpopulated iterator.
    JsonArrayConstIterator();
    // Used by JsonToken to place an iterator on its array.
    explicit JsonArrayConstIterator(const JsonArrayConstIterInitInfo& initInfo);
    // Copies stand at the same element, with a reference of their own.
    JsonArrayConstIterator(const JsonArrayConstIterator& other);
    JsonArrayConstIterator& operator=(const JsonArrayConstIterator& other);
    ~JsonArrayConstIterator();

    // False for a default-constructed iterator.
    bool IsPopulated() const;
    // The current element; throws when unpopulated or at the end.
    const JsonToken& operator*() const;
    const JsonToken* operator->() const;
    // Equal when both walk the same array and stand at the same index. Throws when either is
    // unpopulated or the arrays differ.
    bool operator==(const JsonArrayConstIterator& other) const;
    bool operator!=(const JsonArrayConstIterator& other) const;
    // Next element, or the end after the last. Throws when unpopulated or already at the end.
    JsonArrayConstIterator& operator++();
    // other must not be NULL (assertion).
    void Swap(JsonArrayConstIterator* other);

  private:
    class JsonArrayConstIterState {
      public:
        JsonArrayConstIterState() : pCjsonArray_(nullptr), currentIndex_(-2) {}
        void Init(json_object* array, int32_t index);
        void CopyFrom(const JsonArrayConstIterState& other);
        void Swap(JsonArrayConstIterState* other);
        void Next();
        bool Equals(const JsonArrayConstIterState& other) const;
        void UpdateProxyFromCjsonState();

        // Not owned: the container token holds it.
        json_object* pCjsonArray_;
        // 0..length-1 an element, -1 the end, -2 unpopulated.
        int32_t currentIndex_;
        // A reference on the current element; unpopulated at the end.
        JsonToken proxy_;
    };

    void ConstructStateCommon(const JsonArrayConstIterInitInfo* initInfo);

    JsonArrayConstIterState* pState_;
    JsonArrayConstIterState state_;
};

}  // namespace vok

#endif  // VOK_JSONARRAYUTILS_H
