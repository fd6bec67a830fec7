// Texts of events, and who hears of them: pieces of any bytes against a string that drops what does
// not fit, registrations against a list.

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "../services.h"
#include "zoevmdis.h"

using namespace zotest;

namespace {

constexpr std::size_t TextSize = 256;  // with its NUL

class Program {
public:
    Program(std::uint8_t const* bytes, std::size_t size) : at(bytes), end(bytes + size) {}

    void Run() {
        while (at != end) Byte() % 4 == 0 ? Register() : Send();
    }

private:
    struct Registered {
        unsigned mask, type;
    };

    unsigned Byte() { return at != end ? *at++ : 0; }
    template <class Number>
    Number Take() {
        Number number{};
        for (auto* byte = reinterpret_cast<unsigned char*>(&number);
             byte != reinterpret_cast<unsigned char*>(&number + 1); ++byte) {
            *byte = static_cast<unsigned char>(Byte());
        }
        return number;
    }
    // Few families and levels, so that they meet.
    unsigned Type() {
        return (Byte() % 4 == 0 ? 0x10000 + Byte() % 3 : Byte() % 3 * 0x100 + Byte() % 3);
    }

    void Register() {
        unsigned const number = static_cast<unsigned>(registered.size());
        registered.push_back({Byte() % 16, Type()});
        dispatcher.RegisterListener(registered.back().mask, registered.back().type,
                                    new Listener([this, number](ZoEvent const* event) {
                                        heard.push_back(number);
                                        text = event->GetMessageText();
                                    }));
    }

    void Send() {
        ZoSimpleEvent event(0, Byte() % 16, Type());
        std::string expected;
        for (unsigned pieces = Byte() % 32; pieces > 0; --pieces) AddPiece(event, expected);
        heard.clear();
        text = expected;
        dispatcher.Dispatch(&event);
        if (text != expected || event.GetMessageText() != expected) std::abort();
        std::vector<unsigned> hears;
        for (bool const wild : {true, false}) {
            for (unsigned number = 0; number < registered.size(); ++number) {
                auto const [mask, type] = registered[number];
                bool const isWild = type < 0x100;
                bool const high = event.type >= 0x10000;
                bool const family = high ? type == event.type : type / 256 == event.type / 256;
                bool const level = high || type % 256 <= event.type % 256;
                if (wild == isWild && (mask & event.mask) != 0 && (isWild || family) && level) {
                    hears.push_back(number);
                }
            }
        }
        if (heard != hears) std::abort();
    }

    // Formats a value as the event should.
    __attribute__((format(printf, 2, 3))) static void AddExpected(std::string& expected,
                                                                  char const* format, ...) {
        char formatted[512];
        std::va_list values;
        va_start(values, format);
        std::vsnprintf(formatted, sizeof formatted, format, values);
        va_end(values);
        AddExpected(expected, std::string(formatted));
    }
    static bool AddExpected(std::string& expected, std::string const& piece) {
        bool const fits = expected.size() + piece.size() < TextSize;
        if (fits) expected += piece;
        return fits;
    }

    template <class Number>
    Number Stream(ZoSimpleEvent& event) {
        Number const number = Take<Number>();
        event << number;
        return number;
    }

    void AddPiece(ZoSimpleEvent& event, std::string& expected) {
        switch (Byte() % 12) {
            case 0:
                return AddExpected(expected, "%d", Stream<int>(event));
            case 1:
                return AddExpected(expected, "%u", Stream<unsigned>(event));
            case 2:
                return AddExpected(expected, "%d", Stream<short>(event));
            case 3:
                return AddExpected(expected, "%u", Stream<unsigned short>(event));
            case 4:
                return AddExpected(expected, "%ld", Stream<long>(event));
            case 5:
                return AddExpected(expected, "%lu", Stream<unsigned long>(event));
            case 6:
                return AddExpected(expected, "%f", Stream<double>(event));
            case 7:
                return AddExpected(expected, "%p", Stream<void*>(event));
            case 8:
                return AddExpected(expected, "%f", static_cast<double>(Stream<float>(event)));
            case 9:
                event << ARROW << UNKNOWN_ERROR << endl;
                AddExpected(expected, std::string(" --> "));
                AddExpected(expected, std::string("unknown error"));
                AddExpected(expected, std::string("\n"));
                return;
            case 10: {
                std::string piece;
                for (unsigned length = Byte(); length > 0; --length) {
                    piece += static_cast<char>(1 + Byte() % 255);
                }
                event << piece.c_str();
                AddExpected(expected, piece);
                return;
            }
            default: {
                int const count = static_cast<int>(Byte()) - 128;
                std::string const piece(128, '%');
                bool const taken = event.Print(piece.c_str(), count) == ZoSuccess;
                bool const fits =
                    count >= 0 &&
                    AddExpected(expected, piece.substr(0, static_cast<std::size_t>(count)));
                if (taken != fits) std::abort();
            }
        }
    }

    std::uint8_t const* at;
    std::uint8_t const* const end;
    ZoEventMessageDispatcher dispatcher;
    std::vector<Registered> registered;
    std::vector<unsigned> heard;
    std::string text;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Program(data, size).Run();
    return 0;
}
