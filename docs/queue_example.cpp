// Counts the letters among the records of a Unicode data file, on several threads.
//
//     queue_example [UnicodeData.txt]
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <fstream>
#include <string>
#include <vector>

#include "_zothrd.h"
#include "thrdimp.h"
#include "zowrkque.h"

// Counts in its share of the lines. The unit that finishes last stores the result for all.
class CountLetters : public ZoWorkUnit {
public:
    struct Sum {
        std::atomic<int> letters{0}, unfinished;
    };
    using Line = std::vector<std::string>::const_iterator;

    CountLetters(Line first, Line end, Sum& sum)
        : ZoWorkUnit(ZoConcurrencyHelper::GetResultObject()), first(first), end(end), sum(sum) {}

    void Handle(ZoWorkQueue*) override {
        sum.letters += static_cast<int>(std::count_if(first, end, IsLetter));
        Finish();
    }
    void Aborted(ZoWorkQueue*) override { Finish(); }

private:
    static bool IsLetter(std::string const& line) {  // code;name;category;…
        std::size_t const name = line.find(';'), category = line.find(';', name + 1);
        return category != std::string::npos && line.compare(category + 1, 1, "L") == 0;
    }
    void Finish() {
        if (--sum.unfinished == 0) ZoConcurrencyHelper::SetResult(resultObject, sum.letters);
    }

    Line first, end;
    Sum& sum;
};

int main(int argc, char** argv) {
    char const* const path = argc > 1 ? argv[1] : "/usr/share/unicode/UnicodeData.txt";
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    if (!file.eof()) {
        std::fprintf(stderr, "queue_example: cannot read %s\n", path);
        return 2;
    }

    ___ZoExtendedContext(1);  // once, before other threads use the library
    int const workers = ZoGetNumberOfLogicalProcessors();
    ZoWorkQueue* const queue = ZoWorkQueue::Create(workers, nullptr);

    ZoConcurrencyHelper::CalculateConcurrently();
    long const parts = 2L * workers, count = static_cast<long>(lines.size());
    CountLetters::Sum sum{0, static_cast<int>(parts)};
    std::deque<CountLetters> units;  // the caller keeps them: the queue owns no unit
    for (long part = 0; part < parts; ++part) {
        units.emplace_back(lines.begin() + count * part / parts,
                           lines.begin() + count * (part + 1) / parts, sum);
        if (queue->Append(&units.back()) != ZoSuccess) units.back().Handle(queue);  // out of memory
    }
    int const letters = ZoConcurrencyHelper::CalculateResult(0);  // waits for the workers
    std::printf("%d of %ld records are letters\n", letters, count);

    queue->Destroy();         // waits until the workers are gone
    ___ZoExtendedContext(0);  // after all threads have stopped using the library
}
