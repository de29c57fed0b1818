// The result of looking up a name in a JSON object.
#ifndef VOK_JSONOBJECTFINDRESULT_H
#define VOK_JSONOBJECTFINDRESULT_H

#include <vok/JsonToken.h>

namespace vok {

struct JsonObjectFindResultInitInfo;

// Returned by JsonToken::ObjectFindPair. Dereferencing gives the value found as a JsonToken
// holding its own reference (valid while the result lives, whatever happens to the object):
// unpopulated when the name is absent, a populated null token when the value is JSON null.
// Copyable (copies share the value). One thread at a time.
class JsonObjectConstFindResult {
  public:
    // Not found.
    JsonObjectConstFindResult();
    // Used by JsonToken::ObjectFindPair.
    explicit JsonObjectConstFindResult(const JsonObjectFindResultInitInfo& initInfo);
    // Copies share the value.
    JsonObjectConstFindResult(const JsonObjectConstFindResult& other);
    JsonObjectConstFindResult& operator=(const JsonObjectConstFindResult& other);
    ~JsonObjectConstFindResult();

    // The value found; an unpopulated token when the name is absent.
    const JsonToken& operator*() const;
    const JsonToken* operator->() const;
    // other must not be NULL (assertion).
    void Swap(JsonObjectConstFindResult* other);

  private:
    class JsonObjectConstFindResultState {
      public:
        void Swap(JsonObjectConstFindResultState* other);

        // Unpopulated when the name was not found.
        JsonToken value_;
    };

    void ConstructStateHelper(const JsonObjectFindResultInitInfo* pInitInfo);

    JsonObjectConstFindResultState* pState_;
    JsonObjectConstFindResultState state_;
};

}  // namespace vok

#endif  // VOK_JSONOBJECTFINDRESULT_H
