// SPDX-License-Identifier: Apache-2.0
// What the tab key may add to a command line: `nimbrel complete -- WORD...`, which the scripts of the shells run. Main
// thread only; no lock.
#include "tools/nimbrel/CompleteCommand.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/CameraColumns.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/CommandLine.h"
#include "tools/nimbrel/GigEUsability.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/NetworkInterfaces.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

// Most cameras answer within 10 ms; a shell that waits longer than this feels stuck.
constexpr std::chrono::milliseconds QuickLook{150};
// A bus of this computer that does not answer must not hold a prompt up: the program ends by itself, and nothing is
// added.
constexpr unsigned int LongestLook = 2;  // seconds

struct Candidate {
    std::string word;
    std::string description;
};

// What the shell adds of its own.
enum class Files { None, Any, Json };

struct Answer {
    Files files = Files::None;
    std::vector<Candidate> candidates;
};

// The cameras of the buses that the command line names.
class Attached {
public:
    /// Takes each option of the command line that says which buses to look at.
    Attached() { m_context.AddBusOptions(m_app); }

    /// An option with its value, if it has one.
    void Consider(const std::string& name, const std::optional<std::string>& value) {
        if (FindOption(m_app, name) != nullptr) {
            m_words.push_back(value ? name + "=" + *value : name);
        }
    }

    std::vector<Camera> List() {
        const BusMasterSession session = Start();
        return ListCameras(*session);
    }

    /// GigE cameras that answered a broadcast, whatever their subnet.
    std::vector<GigECamera> ListHeard() {
        const BusMasterSession session = Start();
        Platform::GigEDiagnosis diagnosis;
        std::vector<GigECamera> cameras;
        if (Platform::DiagnoseGigE(false, &diagnosis) == HAL_OK) {
            for (HeardCamera& heard : FindHeardCameras(diagnosis)) {
                cameras.push_back(std::move(heard.camera));
            }
        }
        return cameras;
    }

    std::vector<std::string> ListNetworkInterfaces() {
        if (!IsOnRig()) {
            return NetworkInterfaceNames();
        }
        const BusMasterSession session = Start();
        return m_context.GetSearchedInterfaces({});
    }

private:
    bool IsOnRig() const {
        return std::any_of(m_words.begin(), m_words.end(),
                           [](const std::string& word) { return word.rfind("--rig=", 0) == 0 || word == "--demo"; });
    }

    BusMasterSession Start() {
        if (!IsOnRig()) {
            std::signal(SIGALRM, [](int) { _exit(ExitDone); });
            alarm(LongestLook);
        }
        m_app.parse(std::vector<std::string>(m_words.rbegin(), m_words.rend()));  // CLI11 takes them from the back
        return m_context.StartBusMaster(QuickLook);
    }

    CLI::App m_app;
    CommandContext m_context;
    std::vector<std::string> m_words;
};

std::string Describe(const Camera& camera) {
    return camera.vendor + " " + camera.model + ", " + FormatInterface(camera.interfaceType) +
           (camera.IsGigE() ? " " + FormatIp(camera.ip) : "");
}

// The forms of CAMERA other than a bare serial number.
struct CameraForm {
    const char* prefix;
    const char* description;
    bool gigEOnly;
    std::string (*text)(const Camera& camera);
};

const CameraForm CameraForms[] = {
    {"serial:", "serial number", false, [](const Camera& camera) { return std::to_string(camera.serialNumber); }},
    {"index:", "position in the list", false, [](const Camera& camera) { return std::to_string(camera.index); }},
    {"ip:", "address, GigE", true, [](const Camera& camera) { return FormatIp(camera.ip); }},
    {"mac:", "MAC, GigE", true, [](const Camera& camera) { return FormatMac(camera.mac); }},
    {"guid:", "guid", false, [](const Camera& camera) { return FormatGuid(camera.guid); }},
};

std::vector<Candidate> CompleteCamera(const std::string& typed, Attached& attached) {
    std::vector<Candidate> found;
    const std::size_t colon = typed.find(':');
    if (colon == std::string::npos && !typed.empty() && typed.find_first_of("0123456789") != 0) {
        for (const CameraForm& form : CameraForms) {
            found.push_back({form.prefix, form.description});
        }
        return found;
    }
    const std::vector<Camera> cameras = attached.List();
    if (colon == std::string::npos) {
        for (const Camera& camera : cameras) {
            found.push_back({std::to_string(camera.serialNumber), Describe(camera)});
        }
        return found;
    }
    for (const CameraForm& form : CameraForms) {
        if (typed.compare(0, colon + 1, form.prefix) != 0) {
            continue;
        }
        for (const Camera& camera : cameras) {
            if (!form.gigEOnly || camera.IsGigE()) {
                found.push_back({form.prefix + form.text(camera), Describe(camera)});
            }
        }
    }
    return found;
}

// "a,b" in front of the word behind the last comma.
std::string BeforeLastComma(const std::string& typed) { return typed.substr(0, typed.rfind(',') + 1); }

std::vector<Candidate> CompleteSerials(const std::string& typed, bool isList, Attached& attached) {
    std::vector<Candidate> found;
    const std::string before = isList ? BeforeLastComma(typed) : "";
    const std::vector<std::string> given = SplitAt(before, ',');
    for (const Camera& camera : attached.List()) {
        const std::string serial = std::to_string(camera.serialNumber);
        if (std::find(given.begin(), given.end(), serial) == given.end()) {
            found.push_back({before + serial, Describe(camera)});
        }
    }
    return found;
}

std::vector<Candidate> CompleteColumns(const std::string& typed, bool mayDescend) {
    std::vector<Candidate> found;
    std::string before = BeforeLastComma(typed);
    const std::vector<std::string> given = SplitAt(before, ',');
    if (mayDescend && typed.compare(before.size(), 1, "-") == 0) {
        before += "-";
    }
    for (const CameraColumn& column : CameraColumns()) {
        if (std::find(given.begin(), given.end(), column.name) == given.end()) {
            found.push_back({before + column.name, column.header});
        }
    }
    return found;
}

std::vector<Candidate> AsCandidates(const std::vector<std::string>& words) {
    std::vector<Candidate> found;
    for (const std::string& word : words) {
        found.push_back({word, ""});
    }
    return found;
}

// "auto|always|never"; capitals stand for values that are not these words.
std::vector<std::string> WordsOfPlaceholder(const std::string& placeholder) {
    const bool isChoice = placeholder.find('|') != std::string::npos &&
                          std::none_of(placeholder.begin(), placeholder.end(),
                                       [](char letter) { return letter >= 'A' && letter <= 'Z'; });
    return isChoice ? SplitAt(placeholder, '|') : std::vector<std::string>();
}

bool LooksAtTheBuses(const CLI::App& command) { return FindOption(command, "--demo") != nullptr; }

// The value of an option, by what help shows for it.
Answer CompleteValue(const CLI::App& command, const CLI::Option& option, const std::string& typed, Attached& attached) {
    const std::string placeholder = PlaceholderOf(option);
    const std::string name = option.get_name();
    if (const std::vector<std::string> words = WordsOfPlaceholder(placeholder); !words.empty()) {
        return {Files::None, AsCandidates(words)};
    }
    if (placeholder == "FILE") {
        return {name == "--rig" ? Files::Json : Files::Any, {}};
    }
    if (name == "--interface") {
        return {Files::None, AsCandidates(attached.ListNetworkInterfaces())};
    }
    if (placeholder == "NAME[,NAME...]" || placeholder == "[-]NAME[,...]") {
        return {Files::None, CompleteColumns(typed, placeholder.front() == '[')};
    }
    if (!LooksAtTheBuses(command)) {
        return {};
    }
    if (placeholder == "CAMERA") {
        return {Files::None, CompleteCamera(typed, attached)};
    }
    Answer answer;
    if (name == "--mac" || (name == "--serial" && placeholder == "N")) {
        for (const GigECamera& camera : attached.ListHeard()) {
            answer.candidates.push_back({name == "--mac" ? FormatMac(camera.mac) : std::to_string(camera.serialNumber),
                                         camera.vendor + " " + camera.model + ", " + FormatIp(camera.ip)});
        }
    } else if (placeholder.rfind("SERIAL", 0) == 0) {
        answer.candidates = CompleteSerials(typed, placeholder.find(',') != std::string::npos, attached);
    } else if (name == "--vendor" || name == "--model") {
        for (const Camera& camera : attached.List()) {
            answer.candidates.push_back({name == "--vendor" ? camera.vendor : camera.model, ""});
        }
    }
    return answer;
}

// Goes through the words in front of the one that is completed.
class LineReader {
public:
    LineReader(const CLI::App& app, Attached& attached) : m_command(&app), m_attached(attached) {}

    void Read(const std::string& word) {
        if (m_awaits != nullptr) {
            m_attached.Consider(m_awaits->get_name(), word);
            m_awaits = nullptr;
        } else if (!m_onlyArguments && word == "--") {
            m_onlyArguments = true;
        } else if (!m_onlyArguments && word.size() > 1 && word.front() == '-') {
            ReadOption(word);
        } else {
            ReadWord(word);
        }
    }

    Answer Complete(const std::string& typed) const {
        if (m_awaits != nullptr) {
            return CompleteValue(*m_command, *m_awaits, typed, m_attached);
        }
        if (!m_onlyArguments && !typed.empty() && typed.front() == '-') {
            return CompleteOption(typed);
        }
        return CompleteArgument(typed);
    }

private:
    void ReadWord(const std::string& word) {
        const CLI::App* below = m_onlyArguments ? nullptr : FindCommand(*m_command, word);
        if (below != nullptr) {
            m_command = below;
            m_arguments.clear();
        } else {
            m_arguments.push_back(word);
        }
    }

    void ReadOption(const std::string& word) {
        const std::size_t equals = word.find('=');
        const CLI::Option* option = FindOption(*m_command, word.substr(0, equals));
        if (option == nullptr) {
            return;
        }
        if (equals != std::string::npos) {
            m_attached.Consider(option->get_name(), word.substr(equals + 1));
        } else if (TakesValue(*option)) {
            m_awaits = option;
        } else {
            m_attached.Consider(option->get_name(), std::nullopt);
        }
    }

    Answer CompleteOption(const std::string& typed) const {
        Answer answer;
        if (const std::size_t equals = typed.find('='); equals != std::string::npos) {
            const CLI::Option* option = FindOption(*m_command, typed.substr(0, equals));
            if (option != nullptr && TakesValue(*option)) {
                answer = CompleteValue(*m_command, *option, typed.substr(equals + 1), m_attached);
                for (Candidate& candidate : answer.candidates) {
                    candidate.word.insert(0, typed, 0, equals + 1);
                }
            }
            return answer;
        }
        for (const CLI::Option* option : m_command->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                answer.candidates.push_back({"--" + name, DescriptionOf(*option)});
            }
        }
        return answer;
    }

    Answer CompleteArgument(const std::string& typed) const {
        const std::vector<const CLI::Option*> positionals = PositionalsOf(*m_command);
        if (positionals.empty()) {
            return {Files::None, CommandsBelow(*m_command)};
        }
        const std::size_t at = m_arguments.size();
        if (at >= positionals.size() && positionals.back()->get_items_expected_max() == 1) {
            return {};
        }
        const std::string name = positionals[std::min(at, positionals.size() - 1)]->get_name();
        if (name == "CAMERA") {
            return {Files::None, CompleteCamera(typed, m_attached)};
        }
        if (name == "COMMAND") {
            return {Files::None, CompleteCommand()};
        }
        return {name == "FILE" ? Files::Json : Files::None, {}};
    }

    static std::vector<Candidate> CommandsBelow(const CLI::App& command) {
        std::vector<Candidate> found;
        for (const CLI::App* below : ShownCommands(command)) {
            found.push_back({below->get_name(), below->get_description()});
        }
        return found;
    }

    // The words of `help`, which name a command from the top.
    std::vector<Candidate> CompleteCommand() const {
        const CLI::App* command = m_command->get_parent();
        for (const std::string& word : m_arguments) {
            command = FindCommand(*command, word);
            if (command == nullptr) {
                return {};
            }
        }
        return CommandsBelow(*command);
    }

    const CLI::App* m_command;
    Attached& m_attached;
    const CLI::Option* m_awaits = nullptr;  ///< An option whose value is the next word.
    bool m_onlyArguments = false;
    std::vector<std::string> m_arguments;
};

// One sentence: it stands beside the word, on one line.
std::string FirstSentence(const std::string& text) {
    const std::size_t end = text.find(". ");
    std::string sentence = ForTerminal(end == std::string::npos ? text : text.substr(0, end));
    if (!sentence.empty() && sentence.back() == '.') {
        sentence.pop_back();
    }
    return sentence;
}

// The first line says which files the shell adds: "-", "files" or "files .json". Then a line per word that begins with
// what was typed, with a tab and its description. A word that ends in ":" wants more and no blank behind it.
std::string Format(const Answer& answer, const std::string& typed) {
    static constexpr const char* first[] = {"-\n", "files\n", "files .json\n"};
    std::string text = first[static_cast<int>(answer.files)];
    std::set<std::string> seen;
    for (const Candidate& candidate : answer.candidates) {
        const bool fits = candidate.word.compare(0, typed.size(), typed) == 0;
        // A camera may call itself anything; what this terminal cannot show nobody could read before pressing return.
        const bool isPlain = !candidate.word.empty() && ForTerminal(candidate.word) == candidate.word;
        if (fits && isPlain && seen.insert(candidate.word).second) {
            text += candidate.word + "\t" + FirstSentence(candidate.description) + "\n";
        }
    }
    return text;
}

std::string Complete(const CLI::App& app, const std::vector<std::string>& words) {
    if (words.empty()) {
        return Format({}, "");
    }
    Attached attached;
    LineReader line(app, attached);
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        line.Read(words[i]);
    }
    try {
        return Format(line.Complete(words.back()), words.back());
    } catch (const CLI::ParseError&) {
        return Format({}, "");  // The line has a fault already; the command will name it.
    } catch (const CommandError&) {
        return Format({}, "");
    }
}

}  // namespace

void AddCompleteCommand(CLI::App& app, CommandContext& context) {
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App* command =
        context.AddCommand(app, "complete", "Prints what a shell may add to a command line.", [&app, &context, words] {
            context.Print(Complete(app, *words));
            return static_cast<int>(ExitDone);
        });
    command->add_option("WORD", *words, "The words so far; the last one is completed.")->type_name("");
    command->group("");  // for scripts of shells
}

}  // namespace Nimbrel2::Tool
