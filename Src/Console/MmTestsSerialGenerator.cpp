#include <cstdio>

#include "Src/Console/MmTests.h"

namespace voktests {

vok::MmfSerialGenerator* MmTestsSerialGenerator::m_pSerialGen = nullptr;

void MmTestsSerialGenerator::Install(InteractiveTestManager& manager) {
    static const _Command kCommands[] = {
        {"sergen.init", &Init,
         "creates a MmfSerialGenerator instance.  Arg is end of reserved range - e.g., 100"},
        {"sergen.uninit", &Uninit, "destroy serial generator"},
        {"sergen.next", &Next, "get next serial number"},
        {"sergen.getmany", &GetMany, "Get many serial numbers - interger arg is how many"},
    };
    manager.InstallCommands(kCommands, sizeof kCommands / sizeof kCommands[0]);
}

bool MmTestsSerialGenerator::RequireGenerator() {
    return Require(m_pSerialGen, "Serial Generator not created yet.");
}

void MmTestsSerialGenerator::Init() {
    if (m_pSerialGen != nullptr) {
        std::puts("Serial Generator already exists.");
        return;
    }
    unsigned long reservedEnd;
    if (!NextUnsignedArg(UINT32_MAX, &reservedEnd)) {
        std::puts("Command requires an integer arg for the end of the reserved range.");
        return;
    }
    // The generator issues the numbers after the one it is given.
    m_pSerialGen = new vok::MmfSerialGenerator(static_cast<uint32_t>(reservedEnd));
    std::printf("Serial Generator created; reserved range = 0 .. %lu.\n", reservedEnd);
}

void MmTestsSerialGenerator::Uninit() {
    if (!RequireGenerator()) {
        return;
    }
    Release();
    std::puts("Serial Generator destroyed.");
}

void MmTestsSerialGenerator::Release() {
    delete m_pSerialGen;
    m_pSerialGen = nullptr;
}

void MmTestsSerialGenerator::Next() {
    if (!RequireGenerator()) {
        return;
    }
    std::printf("next=%lu.\n", static_cast<unsigned long>(m_pSerialGen->GetNext()));
}

void MmTestsSerialGenerator::GetMany() {
    if (!RequireGenerator()) {
        return;
    }
    unsigned long count;
    if (!NextUnsignedArg(UINT32_MAX, &count)) {
        std::puts("Command requires an integer arg for how many serial numbers to get.");
        return;
    }
    unsigned long last = 0;
    // Counted so that a count of UINT32_MAX ends where unsigned long is 32 bits wide.
    for (unsigned long done = 0; done < count;) {
        last = m_pSerialGen->GetNext();
        ReportProgress(++done);
    }
    std::printf("Total generated=%lu, last generated serial=%lu.\n", count, last);
}

}  // namespace voktests
