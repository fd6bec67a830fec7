#include <atomic>
#include <cstdlib>
#include <cstring>

#include "zobase.h"
#include "zobaseservices.h"
#include "zoreport.h"

namespace {

void ReportAssertion(char const* text, char const* file, int line) {
    ReportToStandardError("%s:%d: assertion failed: %s", file != nullptr ? file : "?", line,
                          text != nullptr ? text : "?");
    char const* const wish = std::getenv("ZOVA_ASSERT");
    if (wish != nullptr && std::strcmp(wish, "abort") == 0) std::abort();
}

constinit std::atomic<ZoAssertHandler> handlerInForce{&ReportAssertion};
constinit std::atomic<unsigned long> count{0};

}  // namespace

void ZOVA_assert(char const* text, char const* file, int line) {
    count.fetch_add(1, std::memory_order_relaxed);  // a plain counter, orders nothing
    handlerInForce.load(std::memory_order_acquire)(text, file, line);
}

ZoAssertHandler ZoSetAssertHandler(ZoAssertHandler handler) {
    return handlerInForce.exchange(handler != nullptr ? handler : &ReportAssertion,
                                   std::memory_order_acq_rel);
}

unsigned long ZoAssertCount() {
    return count.load(std::memory_order_relaxed);
}
