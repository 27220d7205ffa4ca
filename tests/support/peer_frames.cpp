// Runs the programs and reads what they print. All of them take addresses on their standard input, so that
// each is started once a module: starting them, and reading the module, is most of their work.

#include "support/peer_frames.h"

#include "support/tool_process.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <sstream>
#include <string_view>

namespace orn_test {

namespace {

std::string listingOf(const std::vector<std::uint64_t>& addresses) {
    std::ostringstream text;
    for (std::uint64_t address : addresses)
        text << "0x" << std::hex << address << '\n';
    return text.str();
}

std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

std::string functionOf(std::string_view text) {
    return text == "??" ? std::string() : std::string(text);
}

std::string fileOf(std::string_view text) {
    if (text.empty() || text == "??")
        return {};
    return std::filesystem::path(text).lexically_normal().string();
}

/// 0 for "?" as well.
unsigned numberOf(std::string_view text) {
    unsigned number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// "file:line" or "file:line:column", with or without " (discriminator n)".
PeerFrame frameOf(std::string_view function, std::string_view place, bool hasColumn) {
    place = place.substr(0, place.find(" (discriminator"));
    if (hasColumn)
        place = place.substr(0, place.rfind(':'));
    const std::size_t colon = place.rfind(':');
    if (colon == std::string_view::npos)
        return {functionOf(function), fileOf(place), 0};
    return {functionOf(function), fileOf(place.substr(0, colon)), numberOf(place.substr(colon + 1))};
}

/// Behind the bracket that closes the one at `begin`, and behind what a member function has there.
std::size_t endOfParameters(const std::string& name, std::size_t begin) {
    int depth = 0;
    for (std::size_t at = begin; at < name.size(); ++at) {
        depth += name[at] == '(' ? 1 : name[at] == ')' ? -1 : 0;
        if (depth != 0)
            continue;
        constexpr std::string_view constant = " const";
        const bool isConstant = name.compare(at + 1, constant.size(), constant) == 0;
        return at + 1 + (isConstant ? constant.size() : 0);
    }
    return name.size();
}

bool isBlank(const PeerFrames& frames) {
    return std::all_of(frames.begin(), frames.end(),
                       [](const PeerFrame& frame) { return frame == PeerFrame(); });
}

PeerFrames meant(PeerFrames frames) {
    return isBlank(frames) ? PeerFrames() : frames;
}

bool isAddress(std::string_view line) {
    return line.starts_with("0x") && line.find_first_not_of("0123456789abcdef", 2) == std::string_view::npos;
}

/// An address, then two lines a frame.
std::vector<PeerFrames> readAddr2line(std::string_view output) {
    std::vector<PeerFrames> answers;
    const std::vector<std::string_view> lines = linesOf(output);
    for (std::size_t at = 0; at < lines.size();) {
        PeerFrames frames;
        for (++at; at + 1 < lines.size() && !isAddress(lines[at]); at += 2)
            frames.push_back(frameOf(lines[at], lines[at + 1], false));
        answers.push_back(meant(frames));
    }
    return answers;
}

/// Two lines a frame, then an empty line.
std::vector<PeerFrames> readLlvm(std::string_view output) {
    std::vector<PeerFrames> answers;
    const std::vector<std::string_view> lines = linesOf(output);
    for (std::size_t at = 0; at < lines.size(); ++at) {
        PeerFrames frames;
        for (; at + 1 < lines.size() && !lines[at].empty(); at += 2)
            frames.push_back(frameOf(lines[at], lines[at + 1], true));
        answers.push_back(meant(frames));
    }
    return answers;
}

/// As addr2line, but the innermost of several functions says where it was expanded, too; a column only where
/// there is one.
std::vector<PeerFrames> readElfutils(std::string_view output) {
    std::vector<PeerFrames> answers;
    const std::vector<std::string_view> lines = linesOf(output);
    for (std::size_t at = 0; at < lines.size();) {
        PeerFrames frames;
        for (++at; at + 1 < lines.size() && !isAddress(lines[at]); at += 2) {
            const std::string_view function = lines[at].substr(0, lines[at].find(" inlined at "));
            const std::string_view place = lines[at + 1].substr(0, lines[at + 1].find(" ("));
            const bool hasColumn = std::count(place.begin(), place.end(), ':') > 1;
            frames.push_back(frameOf(function, place, hasColumn));
        }
        answers.push_back(meant(frames));
    }
    return answers;
}

std::string textIn(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::uint64_t hexIn(const nlohmann::json& object, const char* key) {
    return std::stoull(textIn(object, key), nullptr, 16);
}

OurAnswer ourAnswerOf(const nlohmann::json& line) {
    OurAnswer answer;
    for (const nlohmann::json& frame : line["frames"]) {
        const unsigned number = frame["line"].is_number() ? frame["line"].get<unsigned>() : 0;
        answer.frames.push_back(
            {functionOf(textIn(frame, "function")), fileOf(textIn(frame, "file")), number});
    }
    if (const nlohmann::json& symbol = line["symbol"]; symbol.is_object()) {
        answer.symbol = functionOf(textIn(symbol, "name"));
        answer.rawSymbol = textIn(symbol, "raw");
        answer.begin = hexIn(symbol, "begin");
        answer.end = hexIn(symbol, "end");
    }
    return answer;
}

std::vector<std::string> commandOf(Peer peer, const std::string& module) {
    switch (peer) {
    case Peer::addr2line:
        return {"addr2line", "-afiC", "-e", module};
    case Peer::llvm:
        return {"llvm-symbolizer", "--obj=" + module, "--inlines", "--demangle", "--functions=linkage"};
    case Peer::elfutils:
        return {"eu-addr2line", "-afiCA", "-e", module};
    }
    return {};
}

} // namespace

const char* nameOf(Peer peer) {
    switch (peer) {
    case Peer::addr2line:
        return "addr2line";
    case Peer::llvm:
        return "llvm-symbolizer";
    case Peer::elfutils:
        return "eu-addr2line";
    }
    return "";
}

bool isInstalled(Peer peer) {
    return runProcess({nameOf(peer), "--version"}).exitStatus == 0;
}

std::vector<PeerFrames> askPeer(Peer peer, const std::string& module,
                                const std::vector<std::uint64_t>& addresses) {
    const std::string output = runProcess(commandOf(peer, module), listingOf(addresses)).output;
    switch (peer) {
    case Peer::addr2line:
        return readAddr2line(output);
    case Peer::llvm:
        return readLlvm(output);
    case Peer::elfutils:
        return readElfutils(output);
    }
    return {};
}

std::vector<OurAnswer> askOurs(const std::string& module, const std::vector<std::uint64_t>& addresses,
                               const std::vector<std::string>& options) {
    std::vector<std::string> command = {ORN_TOOL_PATH, "symbolize", "--json"};
    command.insert(command.end(), options.begin(), options.end());
    command.push_back(module);
    const std::string output = runProcess(command, listingOf(addresses)).output;
    std::vector<OurAnswer> answers;
    for (std::string_view line : linesOf(output))
        answers.push_back(ourAnswerOf(nlohmann::json::parse(line)));
    return answers;
}

std::string withoutSpaces(const std::string& name) {
    std::string kept;
    std::copy_if(name.begin(), name.end(), std::back_inserter(kept), [](char c) { return c != ' '; });
    return kept;
}

std::string qualifiedFunction(const std::string& name) {
    constexpr std::string_view unnamed = "(anonymous namespace)";
    constexpr std::string_view callOperator = "operator()"; // its name is made of brackets
    if (name.rfind(callOperator) != std::string::npos)
        return std::string(callOperator);
    std::string plain;
    int depth = 0;
    for (std::size_t at = 0; at < name.size(); ++at) {
        const std::string_view rest = std::string_view(name).substr(at);
        if (rest.starts_with(unnamed)) {
            at += unnamed.size() - 1;
        } else if (depth > 0 && rest[0] == '(') {
            at = endOfParameters(name, at) - 1; // an expression may hold comparisons and shifts
        } else if (rest[0] == '{') {
            at = std::min(name.find('}', at), name.size()); // "{lambda(int)#1}"
        } else if (rest[0] == '<') {
            ++depth;
        } else if (rest[0] == '>') {
            --depth;
        } else if (depth > 0) {
            continue;
        } else if (rest[0] == ' ') {
            plain.clear(); // that was the type of the result
        } else if (rest[0] == '(') {
            at = endOfParameters(name, at);
            if (name.compare(at, 2, "::") != 0)
                break;
            plain.clear(); // something local of that function follows
        } else if (rest[0] == '[' || rest[0] == '.') {
            break;
        } else {
            plain += rest[0];
        }
    }
    return plain;
}

std::string plainFunction(const std::string& name) {
    const std::string qualified = qualifiedFunction(name);
    const std::size_t scope = qualified.rfind("::");
    return scope == std::string::npos ? qualified : qualified.substr(scope + 2);
}

std::string textOf(const PeerFrames& frames) {
    std::ostringstream text;
    if (frames.empty())
        text << "nothing";
    constexpr std::size_t enough = 80; // names of instances of templates can be of any length
    for (const PeerFrame& frame : frames)
        text << (&frame == &frames.front() ? "" : " < ") << frame.function.substr(0, enough) << ' '
             << frame.file.substr(frame.file.rfind('/') + 1) << ':' << frame.line;
    return text.str();
}

} // namespace orn_test
