// Not public API. The console's command groups and the argument helpers their handlers share.
//
// Every handler runs on the console's thread, reads its arguments with next_arg(), prints its
// results to standard output and reports a missing precondition or argument instead of acting.
// Exceptions of the framework are not caught: they end the console.
#ifndef VOK_SRC_CONSOLE_MMTESTS_H
#define VOK_SRC_CONSOLE_MMTESTS_H

#include <cstdint>
#include <vector>

#include "Src/Core/MessageMover/MessageMoverFrameworkImpl.h"
#include "Src/Core/MessageMover/MmfIntrusiveListTemplate.h"
#include "Src/Core/MessageMover/MmfMessageManager.h"
#include "Src/Core/MessageMover/MmfSerialGenerator.h"
#include "vok/InteractiveTestManager.h"

namespace voktests {

// Long loops print "progress N..." after every this many steps.
constexpr unsigned long kProgressInterval = 10000;

// False after printing complaint when the state a command needs is missing (NULL).
bool Require(const void* state, const char* complaint);

// Argument helpers. Each takes the next argument; false when it is missing or malformed.
// A decimal number in [min, max].
bool NextSignedArg(long min, long max, long* value);
// A decimal number in [0, max].
bool NextUnsignedArg(unsigned long max, unsigned long* value);
// An address as printed with %p (hexadecimal, "0x" optional).
bool NextAddressArg(void** address);
// True when the next argument is word, without regard to case.
bool NextArgIs(const char* word);
// Prints "progress N..." when done is a multiple of kProgressInterval.
void ReportProgress(unsigned long done);
// Compares a list's count after adding with what it should be, and says so.
void ReportCountAfterAdding(long before, long added, long now);

// "mmf." commands: a framework, a list of messages taken straight from its message manager
// (each holds a long), and interfaces made by hand. The list owns its messages: destroying it
// frees those left on it.
class MmTestsMessageMoverFramework {
  public:
    static void Install(InteractiveTestManager& manager);
    // Silently releases what the commands left.
    static void Release();

  private:
    static void Init();
    static void Uninit();
    static void AddBack();
    static void RemFront();
    static void RemBogus();
    static void AddMany();
    static void RemAll();
    static void Rotate();
    static void ListAll();
    static void RebindAll();
    static void CreateIface();
    static void FreeIface();

    static bool RequireMmf();
    // Moves each message in turn from the front to the back, rebinding it on the way when asked;
    // the formats take the number of messages.
    static void CycleMessages(const char* startFormat, bool rebind, const char* endFormat);
    // Creates a message holding value and appends it.
    static void AppendMessage(long value);
    // Takes the front message off the list (throws on an empty list) and returns its handle.
    static vok::MmBaseMessageHandle TakeFront();
    // The value a message holds; says so when the payload has an unexpected size.
    static long MessageValue(const vok::MmBaseMessageHandle& msg);
    // Frees the messages left on the list and deletes it; returns how many were freed.
    static long DestroyList();
    static void StopFramework();

    static vok::MessageMoverFramework* m_pMmf;
    static vok::MessageMoverFrameworkImpl* m_pMmfImpl;
    static vok::MmfMessageManager* m_pMsgMgr;
    static vok::MmfMessageList* m_pMsgList;
    // Interfaces made by mmf.createiface and not yet freed; mmf.freeiface accepts only these.
    static std::vector<vok::MessageMoverInterface*> m_interfaces;
};

// An entry of the "intrus." commands' list.
struct IntrusiveElement {
    explicit IntrusiveElement(int value) : value(value) { link.Init(this); }

    vok::MmfIntrusiveLinkT<IntrusiveElement> link;
    int value;
};

// "intrus." commands: a list of elements, each allocated by the command that adds it and deleted
// by the command that removes it.
class MmTestsIntrusiveList {
  public:
    typedef vok::MmfIntrusiveListT<IntrusiveElement> List;

    static void Install(InteractiveTestManager& manager);
    // Silently releases what the commands left.
    static void Release();

  private:
    static void AddBack();
    static void AddMany();
    static void Create();
    static void Destroy();
    static void ListAll();
    static void Rem();
    static void RemAll();
    static void RemFront();
    static void Rotate();

    static bool RequireList();
    static IntrusiveElement* Element(List::Link* link) { return link->GetOwner(); }
    static IntrusiveElement* Append(int value);
    // Deletes every element; returns how many there were.
    static long DeleteAll();

    static List* m_pList;
};

// "sergen." commands: one serial generator.
class MmTestsSerialGenerator {
  public:
    static void Install(InteractiveTestManager& manager);
    // Silently releases what the commands left.
    static void Release();

  private:
    static void Init();
    static void Uninit();
    static void Next();
    static void GetMany();

    static bool RequireGenerator();

    static vok::MmfSerialGenerator* m_pSerialGen;
};

}  // namespace voktests

#endif  // VOK_SRC_CONSOLE_MMTESTS_H
