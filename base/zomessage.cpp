#include <unistd.h>

#include <atomic>
#include <cstdarg>

#include "zobase.h"
#include "zobaseservices.h"
#include "zoreport.h"

namespace {

// What the operator would have answered: the configuration in force says.
unsigned int ConfiguredAnswer() {
    int answer = 0;
    char const* const section[] = {"base", nullptr};
    if (ZoConfig* const configuration = ZoDefaultConfiguration()) {
        configuration->ReadValue("answer", &answer, section);
    }
    return static_cast<unsigned int>(answer);
}

class StandardErrorMessages final : public ZoMessageService {
public:
    unsigned int Show(int, unsigned int, char const* format, ...) override
        __attribute__((format(printf, 4, 5)));
};

unsigned int StandardErrorMessages::Show(int, unsigned int, char const* format, ...) {
    va_list args;
    va_start(args, format);
    WriteReport(STDERR_FILENO, "", ReportForm::AsIs, format, args);
    va_end(args);
    return ConfiguredAnswer();
}

constinit StandardErrorMessages standardErrorMessages;
constinit std::atomic<ZoMessageService*> serviceInForce{&standardErrorMessages};

}  // namespace

ZoMessageService* ZoMessage() {
    return serviceInForce.load(std::memory_order_acquire);
}

ZoMessageService* ZoSetMessageService(ZoMessageService* service) {
    return serviceInForce.exchange(service != nullptr ? service : &standardErrorMessages,
                                   std::memory_order_acq_rel);
}
