// A program that brings its own services: everybody, the base library included, must reach these.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "smp_io.h"
#include "zobase.h"
#include "zobaseservices.h"
#include "zotls.h"

namespace {

class OwnConfig final : public ZoConfig {
public:
    int ReadValue(char const* key, int* out, char const* const* sectionPath) override {
        asked = std::string(sectionPath[0]) + "." + key;
        *out = 6;
        return 0;
    }
    std::string asked;
};

OwnConfig ownConfig;
std::string asserted;

}  // namespace

void ZOVA_assert(char const*, char const* file, int line) {
    asserted = file + std::to_string(line);
}

// Nobody calls these two.
ZoLog* ZoSystemLog() {
    return nullptr;
}

ZoMessageService* ZoMessage() {
    return nullptr;
}

ZoConfig* DefaultConfig(ZoConfig*) {
    return &ownConfig;
}

TEST(OwnServices, EverybodyReachesThem) {
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "_Z11ZoSystemLogv"), reinterpret_cast<void*>(&ZoSystemLog));
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "_Z9ZoMessagev"), reinterpret_cast<void*>(&ZoMessage));

    _Configure_smp_io();
    EXPECT_EQ(ownConfig.asked, "debug.ZOVAConsole");

    ZoTLS const original;
    ZoTLS const copy(original);
    EXPECT_EQ(asserted, "src/zotls67");
    EXPECT_EQ(ZoAssertCount(), 0U);

    testing::internal::CaptureStderr();
    EXPECT_EQ(ZoSetMessageService(nullptr)->Show(0, 0, "from the base library"), 6U);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "from the base library\n");
    EXPECT_EQ(ownConfig.asked, "base.answer");
}
