// Runs a fuzz target without libFuzzer: over its corpus, and then for some seconds over simple mutations of
// it, which are the same in every run. usage: fuzz_TARGET CORPUS-FOLDER SECONDS

#include "ContentOf.h"
#include "Fuzz.h"
#include "Random.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <vector>

namespace {

constexpr size_t longest = 1U << 21;

/// Returns one of the texts.
const std::string& anyOf(const std::vector<std::string>& texts, Random& random)
{
    return texts[random.below(static_cast<uint32_t>(texts.size()))];
}

std::string mutated(std::string text, const std::vector<std::string>& corpus,
                    const std::vector<std::string>& tokens, Random& random)
{
    for (uint32_t changes = 1 + random.below(4); changes > 0; --changes) {
        const size_t at = random.below(static_cast<uint32_t>(text.size()) + 1);
        switch (random.below(4)) {
        case 0:
            if (at < text.size())
                text[at] = static_cast<char>(text[at] ^ (1 << random.below(8)));
            break;
        case 1:
            text.erase(at, random.below(16));
            break;
        case 2:
            text.insert(at, anyOf(tokens, random));
            break;
        default: { // a part of any text; repeated, a bracket becomes deep nesting
            const std::string& other = anyOf(corpus, random);
            const size_t from = random.below(static_cast<uint32_t>(other.size()) + 1);
            const bool isRepeated = random.below(2) == 0;
            const std::string part = other.substr(from, random.below(isRepeated ? 8 : 64));
            for (uint32_t count = isRepeated ? random.below(1024) : 1; count > 0; --count)
                text.insert(at, part);
        }
        }
    }
    text.resize(std::min(text.size(), longest));
    return text;
}

const std::string* current = nullptr; // the input that is being run

extern "C" void keepInput(int signal)
{
    if (std::FILE* const file = std::fopen("failed-input", "wb")) {
        std::fwrite(current->data(), 1, current->size(), file);
        std::fclose(file);
        std::fputs("kept in failed-input\n", stderr);
    }
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void run(const std::string& text)
{
    current = &text;
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

} // namespace

int main(int count, char** arguments)
{
    if (count != 3)
        return EXIT_FAILURE;
    for (const int signal : {SIGABRT, SIGSEGV})
        std::signal(signal, &keepInput);
    std::vector<std::string> corpus{""};
    for (const auto& each : std::filesystem::directory_iterator(arguments[1]))
        corpus.push_back(contentOf(each.path()));
    std::sort(corpus.begin(), corpus.end());
    std::ifstream dictionary(std::filesystem::path(arguments[1]) / "../../json.dict");
    std::vector<std::string> tokens; // in libFuzzer's format: strings as in JSON
    for (std::string line; std::getline(dictionary, line);)
        tokens.push_back(nlohmann::json::parse(line));
    for (const std::string& text : corpus)
        run(text);
    // Inputs that are too large for the corpus.
    for (const char* filler : {"a", "[", "{\"a\":", "[1,", "\""})
        for (const size_t size : {size_t{1000}, longest, size_t{100'000'000}}) {
            std::string text = "{\"uid\":";
            while (text.size() < size)
                text += filler;
            run(text + "}");
        }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(arguments[2]));
    Random random(1);
    unsigned long runs = 0;
    for (; std::chrono::steady_clock::now() < end; ++runs)
        run(mutated(anyOf(corpus, random), corpus, tokens, random));
    std::printf("%zu of the corpus and %lu changed inputs\n", corpus.size(), runs);
    return EXIT_SUCCESS;
}
