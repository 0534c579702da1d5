/* l2rsm-host: loads the resource manager, gives it a device to live in and plays a scenario. */
#include <dlfcn.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>

#include "assembly.h"
#include "comp_registry.h"
#include "prompt.h"
#include "record/replayer.h"
#include "script/lua_api.h"

using namespace host;

/* ---- options ---- */

/* As the debug log service numbers them. */
static u32 debugLevel(const std::string &name)
{
    return name == "error" ? 2 : name == "warning" ? 3 : 4;
}

/* The name of an output was forgotten, and the scenario would be overwritten in its place. */
static std::string refuseScenario(const std::string &output)
{
    return output.ends_with(".lua") ? output + " is a scenario's name" : "";
}

/* A record may be the only one of its kind. */
static std::string refuseExisting(const std::string &record)
{
    std::error_code ignored;
    const bool kept = std::filesystem::is_regular_file(record, ignored) &&
                      std::filesystem::file_size(record, ignored) != 0;
    return kept ? record + " is there already" : "";
}

static void addOptions(CLI::App &app, Options &options)
{
    app.add_option("--module", options.module, "The module to load")->take_last();
    app.add_option("--slot", options.services.slot, "Slot of the board")->take_last();
    app.add_option("--speed", options.speed, "Play the device's time so many times as fast")
        ->check(CLI::Range(1, 1000))
        ->take_last();
    app.add_option("--partition", options.services.partition, "Memory partition of the module")
        ->check(CLI::Range(0, 254))
        ->take_last();
    app.add_option("--debug-log", options.services.debugLog, "Write the module's debug log here")
        ->check(refuseScenario)
        ->take_last();
    app.add_option_function<std::string>(
           "--debug-level",
           [&](const std::string &level) { options.services.debugLevel = debugLevel(level); },
           "What the debug log keeps: info (all), warning or error")
        ->check(CLI::IsMember({"error", "warning", "info"}))
        ->take_last();
    app.add_option("--black-box", options.services.blackBox, "Append events and errors here")
        ->check(refuseScenario)
        ->take_last();
    app.add_flag("--trace", options.trace, "Print hooks, service operations and log lines, too");
    app.add_flag("--json", options.json,
                 "The show functions print JSON; all else goes to standard error");
    app.add_flag("-i,--interactive", options.interactive,
                 "A prompt, after the scenario if there is one");
    app.add_option("--record", options.record, "Record all that passes between host and module")
        ->check(refuseScenario)
        ->check(refuseExisting)
        ->take_last();
    app.add_option("--metrics", options.metrics, "Keep a Prometheus text file of counters")
        ->check(refuseScenario)
        ->take_last();
}

/* A scenario's first line may hold the options it needs: "-- options: --speed 200". */
static std::vector<std::string> scriptOptions(const std::string &script)
{
    std::string line;
    std::error_code ignored;
    // What is read of a pipe here would be missing when the script is played.
    if (std::filesystem::is_regular_file(script, ignored)) {
        std::ifstream file(script);
        std::getline(file, line);
    }
    const std::string mark = "-- options:";
    std::vector<std::string> words;
    if (line.compare(0, mark.size(), mark) == 0) {
        std::istringstream rest(line.substr(mark.size()));
        for (std::string word; rest >> word;) {
            words.push_back(word);
        }
    }
    return words;
}

static void parseWords(CLI::App &app, std::vector<std::string> words)
{
    std::ranges::reverse(words); // as CLI11 wants them
    app.parse(words);
}

/* The module stands beside the platform's library, wherever the two are installed. */
static std::string defaultModule()
{
    Dl_info platform{};
    dladdr(reinterpret_cast<const void *>(&COMP_RegisterComponentInfo), &platform);
    const auto library = std::filesystem::canonical(platform.dli_fname);
    return (library.parent_path() / "libqor_l2rsm.so").string();
}

/* Throws CLI::ParseError; a problem in the script's own line is positioned there. */
static Options parseOptions(int argc, char **argv)
{
    const auto parseCommandLine = [&](Options &options) {
        CLI::App app("Plays a scenario with the layer-2 resource manager.", "l2rsm-host");
        app.set_help_flag("-h,--help", "Print this help");
        app.add_flag_callback(
            "--manual",
            [] {
                writeManual(std::cout);
                throw CLI::Success();
            },
            "Print the reference of the scenarios' functions");
        app.add_option("SCENARIO", options.script, "Lua script to play");
        addOptions(app, options);
        CLI::Option *replay =
            app.add_option("--replay", options.replay, "Play a record instead, and compare");
        app.add_flag("--partial", options.partial, "The record to replay was cut off")
            ->needs(replay);
        try {
            app.parse(argc, argv);
        } catch (const CLI::CallForHelp &) {
            std::cout << app.help();
            throw CLI::Success();
        }
        // What was played is in the record. Said here, for the help would repeat it at each option.
        const std::set<std::string> goWithReplay = {"--replay", "--partial", "--module"};
        for (const CLI::Option *option : app.get_options()) {
            const std::string name = option->get_name();
            if (replay->count() != 0 && option->count() != 0 && !goWithReplay.contains(name)) {
                throw CLI::ExcludesError(name, "--replay");
            }
        }
    };
    // The command line comes first to find the script, and last to have the last word.
    Options options;
    options.module = defaultModule();
    Options named = options;
    parseCommandLine(named);
    CLI::App own;
    own.set_help_flag();
    addOptions(own, options);
    try {
        parseWords(own, scriptOptions(named.script));
    } catch (const CLI::ParseError &error) {
        throw CLI::ParseError(named.script + ":1: " + error.what(), CLI::ExitCodes::BaseClass);
    }
    parseCommandLine(options);
    return options;
}

/* ---- playing ---- */

static void requireReadable(const std::string &script)
{
    if (std::filesystem::is_directory(script)) {
        throw std::runtime_error(script + ": is a directory");
    }
    if (access(script.c_str(), R_OK) != 0) {
        throw std::runtime_error(script + ": " + std::strerror(errno));
    }
}

/* One line on standard error, after everything that was printed before it. */
static int complain(const std::string &text)
{
    std::fflush(stdout);
    std::fprintf(stderr, "%s\n", text.c_str());
    return 1;
}

/* Without a script standard input is the script, unless somebody sits there. */
static bool wantsPrompt(const Options &options)
{
    return options.interactive || (options.script.empty() && isatty(STDIN_FILENO) != 0);
}

/* What the session left in the module; no fault of its own. */
static void listLeftovers(Host &device)
{
    for (const std::string &line :
         device.leftovers.list(device.module, device.inspector, device.ledger)) {
        device.printer.writeEvent("left behind: " + line + "\n");
    }
}

/* Starts the device and plays the script; what ended it, "" when it passed. */
static std::string runScenario(Host &device, const Options &options)
{
    try {
        if (!options.script.empty()) {
            requireReadable(options.script);
        }
        start(device, options);
        device.scenario.open();
        std::optional<Prompt> prompt;
        if (wantsPrompt(options)) {
            prompt.emplace(device);
        }
        if (!options.script.empty() || !prompt) {
            device.scenario.play(options.script);
        }
        if (prompt) {
            prompt->run();
        }
        return "";
    } catch (const ScriptError &error) {
        return error.what();
    } catch (const std::exception &error) {
        return std::string("l2rsm-host: ") + error.what();
    }
}

static int play(Host &device, const Options &options)
{
    const std::string ended = runScenario(device, options);
    // The last word is the verdict's, whatever the worker is at.
    device.journal.stop();
    if (device.scenario.state() != nullptr) {
        listLeftovers(device);
    }
    int status = ended.empty() ? 0 : complain(ended);
    device.recorder.finish();
    device.metrics.finish();
    for (const std::string &failure :
         {device.services.failure(), device.recorder.failure(), device.metrics.failure()}) {
        if (!failure.empty()) {
            status = complain("l2rsm-host: " + failure);
        }
    }
    if (status == 0 && !wantsPrompt(options)) {
        device.printer.writeEvent(
            "scenario passed: " + std::to_string(device.scenario.expectations()) +
            " expectations\n");
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        status = complain(std::string("l2rsm-host: standard output: ") + std::strerror(errno));
    }
    return status;
}

static int replayRecord(const Options &options)
{
    try {
        return replay({options.replay, options.module, options.partial});
    } catch (const std::exception &error) {
        return complain(std::string("l2rsm-host: ") + error.what());
    }
}

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    Options options;
    try {
        options = parseOptions(argc, argv);
    } catch (const CLI::Success &) {
        return 0;
    } catch (const CLI::ParseError &error) {
        return complain(std::string("l2rsm-host: ") + error.what());
    }
    if (!options.replay.empty()) {
        return replayRecord(options);
    }
    // Never deleted: the module's worker calls it until the process is gone.
    static Host *const device = new Host;
    return play(*device, options);
}
