#include "zothrdmg.h"

#include <atomic>
#include <cstdio>
#include <new>
#include <typeinfo>

#include "cancellation.h"
#include "misuse.h"
#include "rw_fast.h"
#include "smp_io.h"
#include "zobase.h"
#include "zocrits.h"

namespace {

// Set and cleared by compare-and-exchange, so that managers of several databases may be made and
// destroyed at the same moment. Acquire and release: who finds a manager here finds it complete.
std::atomic<ZoThreadMgr*> the_main{nullptr};

// The section and the mutex that lock nothing, used where there is none. Made when the library is
// loaded, while chaining is off, and never destroyed: static managers of the host may outlive this
// file's objects.
ZoCritSect* const notVeryCriticalSection = ZoCritSect::MakeDummy("");
ZoRW_Mutex* const notVeryExclusiveMutex = new (std::nothrow) ZoRW_Mutex;

constexpr unsigned long ZoMgrIndex = 11;
constexpr unsigned long ServerWriterIndex = 25;

constexpr char const* sectionNames[] = {
    "ZoCSRootObject",  "ZoCSLoadCD",       "ZoCSCallbackMgr",   "ZoCSCrypt",
    "ZoCSBuildQTree",  "ZoCSLBucketLists", "ZoCSReg",           "ZoCSLBucketIndex",
    "ZoCSBufferColl",  "ZoCSObjMgr",       "ZoCSOnDemand",      "ZoCSZoMgr",
    "ZoCSZoObject",    "ZoCSAdmin",        "ZoCSDefaults",      nullptr,
    nullptr,           "ZoCSBucketMap",    "ZoCSCompareObject", "ZoCSOql",
    "ZoCSTransIDX",    "ZoCSAccessPaths",  "ZoCSBaseInternals", "ZoCSCallbackID",
    "ZoCSZoBaseLists", "ZoCSServerWriter",
};
constexpr ZoInt32 NamedSlots = sizeof sectionNames / sizeof sectionNames[0];
static_assert(NamedSlots == 26);

constexpr int Reading = 0;
constexpr int Writing = 1;

void Start(ZoRW_Mutex& mutex, int mode) {
    mutex.StartRW(mode, ZoNoLimit);
}

bool IsDetecting(ZoCritSect const* section) {
    return section != nullptr && typeid(*section) == typeid(ZoDLDCritSect);
}

constexpr Bracket beginWriter{"BeginWriter"};
constexpr Bracket beginAdmin{"BeginAdmin"};
constexpr Bracket beginSection{"BeginCriticalSection"};
constexpr Bracket getSection{"GetCriticalSection"};
constexpr Bracket endReader{"EndReader", "BeginReader"};
constexpr Bracket endWriter{"EndWriter", "BeginWriter"};
constexpr Bracket endSerialisedWriter{"EndWriter", "BeginWriter", true};
constexpr Bracket upgradeWriter{"UpgradeWriter", "BeginWriter with lessExclusive 1"};
constexpr Bracket downgradeWriter{"DowngradeWriter", "BeginWriter with lessExclusive 0"};
constexpr Bracket endAdmin{"EndAdmin", "BeginAdmin"};
constexpr Bracket endSection{"EndCriticalSection", "BeginCriticalSection"};

// Enters a section; leaves it again unless it is kept, as when a wait in the scope is cancelled, or
// the host has left it in the message of a deadlock report.
class SectionHold {
public:
    explicit SectionHold(ZoCritSect& section) : section(&section) { section.Begin(); }
    SectionHold(SectionHold const&) = delete;
    SectionHold& operator=(SectionHold const&) = delete;
    ~SectionHold() {
        if (section != nullptr && !Misuse::IsLeft(*section)) section->Exit();
    }
    void Keep() { section = nullptr; }

private:
    ZoCritSect* section;
};

}  // namespace

ZoUInt32 const ZoThreadMgr::NoneCS;
ZoUInt32 const ZoThreadMgr::OneCS;
ZoUInt32 const ZoThreadMgr::AllCS;
ZoUInt32 const ZoThreadMgr::LessExclusiveCommit;

ZoThreadMgr* MainThreadMgr() {
    return the_main.load(std::memory_order_acquire);
}

// --- making and destroying ---------------------------------------------------------------------

ZoThreadMgr::ZoThreadMgr() : ZoThreadMgr(nullptr, AllCS, 0) {}

ZoThreadMgr::ZoThreadMgr(ZoBase* base, unsigned long level) : ZoThreadMgr(base, level, 0) {}

ZoThreadMgr::ZoThreadMgr(ZoBase* base, unsigned long level, unsigned long disableMask)
    : rwMutex(nullptr),
      sections(nullptr),
      base(base),
      concurrencyLevel(static_cast<ZoUInt32>(level)),
      numberOfSections(0),
      disableMask(static_cast<ZoUInt32>(disableMask)) {
    Init();
}

void ZoThreadMgr::Init() {
    rwMutex = ZoRW_Mutex::Make(nullptr);
    if (concurrencyLevel == OneCS) {
        if (MakeSlots(1)) sections[0] = ZoCritSect::MakeLight("ZoCSTheOnlyOne");
    } else if (concurrencyLevel != NoneCS) {
        if (MakeSlots(NamedSlots)) MakeNamedSections();
    }
    for (ZoInt32 slot = 0; slot < numberOfSections; ++slot) {
        if (IsDetecting(sections[slot])) detecting |= ZoUInt32{1} << slot;
    }
    ZoThreadMgr* none = nullptr;
    the_main.compare_exchange_strong(none, this, std::memory_order_acq_rel);
}

bool ZoThreadMgr::MakeSlots(ZoInt32 count) {
    sections = new (std::nothrow) ZoCritSect* [static_cast<unsigned long>(count)] {};
    if (sections != nullptr) numberOfSections = count;
    return sections != nullptr;
}

void ZoThreadMgr::MakeNamedSections() {
    for (unsigned long index = 0; index < static_cast<unsigned long>(NamedSlots); ++index) {
        char const* const name = sectionNames[index];
        if (name == nullptr) continue;
        unsigned short const light = index == ZoMgrIndex ? 0 : 1;
        sections[index] = MakeTheCritSect(1UL << index, name, light);
    }
}

ZoCritSect* ZoThreadMgr::MakeTheCritSect(unsigned long bits, char const* name,
                                         unsigned short light) {
    if ((static_cast<ZoUInt32>(bits) & disableMask) != 0) return ZoCritSect::MakeDummy(name);
    return light != 0 ? ZoCritSect::MakeLight(name) : ZoCritSect::Make(name);
}

ZoThreadMgr::~ZoThreadMgr() {
    ZoThreadMgr* self = this;
    the_main.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
    delete rwMutex;
    for (ZoInt32 slot = numberOfSections; slot > 0; --slot) delete sections[slot - 1];
    delete[] sections;
}

// --- sections and mutex by index ---------------------------------------------------------------

ZoRW_Mutex& ZoThreadMgr::Mutex() const {
    if (rwMutex != nullptr) return *rwMutex;
    CancellationDeferred deferred;
    ZOVA_assert("(this->rwMutex != 0)", "src/zothrdmg", 171);
    return *notVeryExclusiveMutex;
}

ZoUInt32 ZoThreadMgr::SlotOf(unsigned long index) const {
    return concurrencyLevel == OneCS ? 0 : static_cast<ZoUInt32>(index);
}

bool ZoThreadMgr::HasSection(ZoUInt32 slot) const {
    return slot < static_cast<ZoUInt32>(numberOfSections) && sections[slot] != nullptr;
}

ZoCritSect& ZoThreadMgr::Section(unsigned long index, Bracket const& bracket,
                                 char const* label) const {
    ZoUInt32 const slot = SlotOf(index);
    return HasSection(slot) ? *sections[slot] : NoSection(index, bracket, label);
}

ZoCritSect& ZoThreadMgr::NoSection(unsigned long index, Bracket const& bracket,
                                   char const* label) const {
    if (concurrencyLevel == NoneCS) return *notVeryCriticalSection;
    CancellationDeferred deferred;
    ZOVA_assert("(this->sections[index] != 0)", "src/zothrdmg", 188);
    ZoUInt32 const slot = SlotOf(index);
    bool const isNamed = slot < NamedSlots && sectionNames[slot] != nullptr;
    if (detecting != 0 && !isNamed) Misuse::TellIndex(this, index, bracket, label);
    return *notVeryCriticalSection;
}

// The owner leaves. For any other thread the misuse is logged with the bracket's name, which the
// section itself does not know.
void ZoThreadMgr::Leave(unsigned long index, Bracket const& bracket,
                        char const* label) const ZO_NOT_ANALYSED {
    ZoUInt32 const slot = SlotOf(index);
    if (!HasSection(slot)) return NoSection(index, bracket, label).Exit();
    ZoCritSect& section = *sections[slot];
    if ((detecting >> slot & 1) != 0) {
        auto& detector = static_cast<ZoDLDCritSect&>(section);
        if (!detector.MayLeave()) [[unlikely]]
            return Misuse::TellLeave(detector, index, bracket, label);
    }
    section.Exit();
}

ZoCritSect* ZoThreadMgr::GetCriticalSection(unsigned long index, unsigned long) {
    return &Section(index, getSection, nullptr);
}

unsigned long ZoThreadMgr::GetConcurrencyLevel() {
    return concurrencyLevel;
}

unsigned long ZoThreadMgr::GetDisableMask() {
    return disableMask;
}

int ZoThreadMgr::HasNoneCS() {
    return concurrencyLevel == NoneCS ? 1 : 0;
}

int ZoThreadMgr::HasOneCS() {
    return concurrencyLevel == OneCS ? 1 : 0;
}

int ZoThreadMgr::HasAllCS() {
    return concurrencyLevel == AllCS ? 1 : 0;
}

int ZoThreadMgr::HasLessExclusiveCommit() {
    return concurrencyLevel == LessExclusiveCommit ? 1 : 0;
}

unsigned long ZoThreadMgr::GetNoneCS() {
    return NoneCS;
}

unsigned long ZoThreadMgr::GetOneCS() {
    return OneCS;
}

unsigned long ZoThreadMgr::GetAllCS() {
    return AllCS;
}

unsigned long ZoThreadMgr::GetLessExclusiveCommit() {
    return LessExclusiveCommit;
}

// --- the brackets ------------------------------------------------------------------------------

// Most reads need no more than the mutex's fast path. It is here without a call, so that the
// bracket costs what the mutex does.
void ZoThreadMgr::BeginReader(char const*) {
    if (!UsesMutex()) return;
    if (rwMutex == nullptr || !static_cast<ZoGenRW_Mutex*>(rwMutex)->TryStartRead()) {
        Start(Mutex(), Reading);
    }
}

void ZoThreadMgr::EndReader(char const* label) {
    if (!UsesMutex()) return;
    if (rwMutex == nullptr || !static_cast<ZoGenRW_Mutex*>(rwMutex)->TryEndRead()) {
        End(Reading, endReader, label);
    }
}

int ZoThreadMgr::ModeOf(unsigned short lessExclusive) const {
    return SerialisesWriters() && lessExclusive != 0 ? Reading : Writing;
}

void ZoThreadMgr::BeginWriter(char const* label, unsigned short lessExclusive) {
    if (UsesMutex()) BeginWrite(ModeOf(lessExclusive), beginWriter, label);
}

void ZoThreadMgr::EndWriter(char const* label, unsigned short lessExclusive) {
    if (!UsesMutex()) return;
    EndWrite(ModeOf(lessExclusive), SerialisesWriters() ? endSerialisedWriter : endWriter, label);
}

void ZoThreadMgr::BeginAdmin(char const* label) {
    if (UsesMutex()) BeginWrite(Writing, beginAdmin, label);
}

void ZoThreadMgr::EndAdmin(char const* label) {
    if (UsesMutex()) EndWrite(Writing, endAdmin, label);
}

void ZoThreadMgr::BeginWrite(int mode, Bracket const& bracket, char const* label) {
    if (!SerialisesWriters()) {
        Start(Mutex(), mode);
        return;
    }
    SectionHold serverWriter(Section(ServerWriterIndex, bracket, label));
    Start(Mutex(), mode);
    serverWriter.Keep();
}

void ZoThreadMgr::EndWrite(int mode, Bracket const& bracket, char const* label) {
    End(mode, bracket, label);
    if (SerialisesWriters()) Leave(ServerWriterIndex, bracket, label);
}

void ZoThreadMgr::End(int mode, Bracket const& bracket, char const* label) const {
    if (Mutex().EndRW(mode) == ZoRefused && rwMutex != nullptr) [[unlikely]]
        Misuse::TellEnd(static_cast<ZoGenRW_Mutex&>(*rwMutex), mode, bracket, label);
}

void ZoThreadMgr::UpgradeWriter(char const* label) {
    if (!SerialisesWriters()) return;
    End(Reading, upgradeWriter, label);
    Start(Mutex(), Writing);
}

void ZoThreadMgr::DowngradeWriter(char const* label) {
    if (!SerialisesWriters()) return;
    End(Writing, downgradeWriter, label);
    Start(Mutex(), Reading);
}

void ZoThreadMgr::BeginCriticalSection(unsigned long index, char const* label) ZO_NOT_ANALYSED {
    Section(index, beginSection, label).Begin();
}

void ZoThreadMgr::BeginCriticalSection(unsigned long index, unsigned long, char const* label) {
    BeginCriticalSection(index, label);
}

void ZoThreadMgr::EndCriticalSection(unsigned long index, char const* label) {
    Leave(index, endSection, label);
}

void ZoThreadMgr::EndCriticalSection(unsigned long index, unsigned long, char const* label) {
    EndCriticalSection(index, label);
}

// --- the status report -------------------------------------------------------------------------

namespace {

constexpr int InfoSize = 256;

void PrintSection(smp_io& console, int slot, ZoCritSect& section) {
    char info[InfoSize];
    section.GetInfo(info, sizeof info);
    char line[InfoSize + 64];
    std::snprintf(line, sizeof line, "    %2.2d : %-18.18s : %s\n", slot, section.GetName(), info);
    console << line;
}

}  // namespace

void ZoThreadMgr::PrintStatus() {
    smp_io* const console = GetConsole();
    if (concurrencyLevel == NoneCS || console == nullptr) return;
    char info[InfoSize];
    Mutex().GetInfo(info, sizeof info);
    *console << "ZoThread Status Report for Manager (" << static_cast<void*>(this) << ")\n";
    *console << "  Reader/Writer Mutex:\n";
    *console << "    " << info << endl;
    *console << "  Critical Sections:\n";
    for (int slot = 0; slot < numberOfSections; ++slot) {
        if (sections[slot] != nullptr) PrintSection(*console, slot, *sections[slot]);
    }
}
