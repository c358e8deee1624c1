// The fodr command.
#include "cli/Commands.h"
#include "cli/Console.h"
#include "platform/Process.h"

#include <CLI/CLI.hpp>
#include <algorithm>

namespace {

using namespace fodr::cli;

constexpr char kFooter[] = R"(Exit codes:
  0    done; also when Ctrl-C or a termination signal ended a share that was usable
  1    something else failed
  2    the command line can't be understood
  3    the mount point can't be used: taken, not empty, not a folder
  4    the agent or the connection is lost
  5    the other side refuses the share or the connection
  6    ended, but files in the mount are still open
  7    a folder can't be shared: missing, not a folder, not readable, not shared
  8    FUSE is missing
  9    the plug-in is missing or can't be used
  10   ssh failed, or there is no fodr on the other machine
  11   no share is running
  126  the command behind -- can't be started
  130, 143, 129  interrupted, terminated, hung up before the share was usable
With a command behind -- its own status, 128 and the signal's number if a signal ended it.

Environment: FODR_PLUGIN (the plug-in's library), FODR_SSH (the ssh command), FODR_TOKEN (the agreed token),
FODR_SETTINGS_DIR (the settings store). The plug-in logs to a file of its own; the settings logLevel and logToStderr
(fodr config) make it say more, and here.)";

void AddWhereAndHow(CLI::App *app, ShareWords *words)
{
    auto *target = app->add_option_group("Where they appear");
    target
        ->add_option("--mount", words->mount,
                     "On this machine, at this folder (default: one in your runtime folder)")
        ->type_name("MNT");
    target->add_option("--to", words->to, "On another machine, over ssh")->type_name("USER@HOST:MNT");
    target->add_option("--tcp", words->tcp, "At an agent that listens there")->type_name("HOST:PORT");
    target->add_option("--listen", words->listen, "At an agent that connects to this port")
        ->type_name("[ADDRESS:]PORT");
    target->require_option(0, 1);
    app->add_flag("--read-only", words->readOnly, "Nothing can be changed from the other side");
    app->add_option("--case", words->nameCase,
                    "sensitive: names that differ in case are two (on Linux); insensitive: they are one")
        ->check(CLI::IsMember({"sensitive", "insensitive"}))
        ->default_val("sensitive");
    app->add_flag("--links-outside", words->linksOutside,
                  "Follow links of the shared folders to wherever they lead, not only within the folder");
    auto *reconnect = app->add_flag_callback(
        "--reconnect", [words] { words->reconnect = true; }, "When the connection is lost, try again");
    app->add_flag_callback(
           "--no-reconnect", [words] { words->reconnect = false; }, "End then (default, except over ssh)")
        ->excludes(reconnect);
    auto *fixed = app->add_flag_callback(
        "--fixed", [words] { words->fixed = true; },
        "Nothing can be added later: fodr gives up the right to write elsewhere (default with a command, and "
        "of "
        "fodr send)");
    app->add_flag_callback(
           "--no-fixed", [words] { words->fixed = false; }, "Folders can be added later")
        ->excludes(fixed);
    app->add_option("--token-file", words->tokenFile, "File with the token that both ends know");
    app->add_option("--side-channel", words->sideChannel, "Carry the data on a TCP connection of its own")
        ->check(CLI::IsMember({"none", "tcp", "plugin"}));
    app->add_option("--ssh-command", words->sshCommand, "ssh and its options")
        ->envname("FODR_SSH")
        ->default_val("ssh");
    app->add_option("--remote-fodr", words->remoteProgram, "fodr on the other machine")->default_val("fodr");
    app->add_option("--io-timeout", words->ioTimeoutSeconds,
                    "Seconds after which a call in the mount fails when we don't answer, and an agent is "
                    "given up that "
                    "takes no answers; 0: never. Default: 10")
        ->type_name("SECONDS");
    app->add_option("--agent-option", words->agentWords, "Handed to the agent as it is")
        ->allow_extra_args(false);
    app->add_flag("-v,--verbose", words->verbose, "Also what the agent says");
    app->add_flag("--trace", words->trace, "Show on standard error what the plug-in does, packet by packet");
    app->footer(
        "Behind -- a command can follow: it runs while the shares are there, with FODR_MOUNT naming the\n"
        "mount, and its status becomes ours.");
}

void AddShare(CLI::App *app, ShareWords *words)
{
    app->add_option("DIR", words->folders, "Folders to share")->required();
    app->add_option("--name", words->name, "Name of the share (default: the folder's own)");
    app->add_option(
           "--layout", words->layout,
           "single: the folder is the mount itself; folders: each is a folder in it, and more can be added")
        ->check(CLI::IsMember({"single", "folders"}));
    AddWhereAndHow(app, words);
}

void AddSend(CLI::App *app, ShareWords *words)
{
    words->sends = true;
    app->add_option("FILE", words->folders, "Files, and folders with all that they hold")->required();
    AddWhereAndHow(app, words);
}

// What stands behind the first "--" of `fodr share` and `fodr send` is a command of its own.
std::vector<std::string> TakeCommand(std::vector<std::string> *arguments)
{
    if (arguments->empty() || (arguments->front() != "share" && arguments->front() != "send"))
        return {};
    const auto end = std::find(arguments->begin(), arguments->end(), "--");
    if (end == arguments->end())
        return {};
    std::vector<std::string> command(end + 1, arguments->end());
    arguments->erase(end, arguments->end());
    return command;
}

struct ControlWords {
    uint32_t processId = 0;
    std::string folder;
    std::string name;
    bool json = false;
    bool traffic = false;
};

struct ConfigWords {
    std::string name;
    std::vector<std::string> values;
    std::string type;
    bool all = false;
};

void AddConfig(CLI::App *app, ConfigWords *words)
{
    app->require_subcommand(1);
    auto *get = app->add_subcommand("get", "Print a setting; status 1 if it isn't set");
    auto *set = app->add_subcommand("set", "Set one");
    auto *unset = app->add_subcommand("unset", "Let its default hold again");
    for (auto *one : {get, set, unset})
        one->add_option("NAME", words->name)->required();
    set->add_option("VALUE", words->values, "One, or several for a list")->required();
    set->add_option("--type", words->type, "sz, expand_sz, multi_sz, dword, qword, binary; default: its own");
    app->add_subcommand("list", "Print what is set")
        ->add_flag("--all", words->all, "Also what isn't, with its default");
    app->add_subcommand("watch", "Print every change until Ctrl-C")
        ->add_option("NAME", words->name, "Only of this setting");
}

int RunConfig(const CLI::App &app, const ConfigWords &words)
{
    const std::string verb = app.get_subcommands().front()->get_name();
    if (verb == "get")
        return RunConfigGet(words.name);
    if (verb == "set")
        return RunConfigSet(words.name, words.values, words.type);
    if (verb == "unset")
        return RunConfigUnset(words.name);
    return verb == "list" ? RunConfigList(words.all) : RunConfigWatch(words.name);
}

void AddControl(CLI::App *app, ControlWords *words)
{
    app->add_option("--pid", words->processId, "Process id of the share that is meant (default: the latest)");
}

std::string HelpOf(const CLI::App &app)
{
    const auto chosen = app.get_subcommands();
    return "fodr " + (chosen.empty() ? "" : chosen.front()->get_name() + " ") + "--help";
}

int Run(std::vector<std::string> arguments)
{
    CLI::App app("Makes chosen local folders appear on another machine.", "fodr");
    app.require_subcommand(1);
    app.footer(kFooter);
    app.set_version_flag("--version", FODR_VERSION);

    ShareWords share;
    AgentCommandWords agent;
    ControlWords control;
    ShareWords send;
    share.command = send.command = TakeCommand(&arguments);
    auto *shareApp = app.add_subcommand("share", "Share folders until Ctrl-C, or while a command runs");
    AddShare(shareApp, &share);
    auto *sendApp = app.add_subcommand("send", "Show single files instead, and nothing beside them");
    AddSend(sendApp, &send);
    auto *addApp = app.add_subcommand("add", "Add a folder to a running share");
    addApp->add_option("DIR", control.folder)->required();
    addApp->add_option("--name", control.name, "Name of the share");
    auto *removeApp = app.add_subcommand("remove", "Take a folder back");
    removeApp->add_option("DIR|NAME", control.folder)->required();
    auto *listApp = app.add_subcommand("list", "List the folders of a running share");
    auto *statusApp = app.add_subcommand("status", "Show the state of a running share");
    for (auto *one : {addApp, removeApp, listApp, statusApp})
        AddControl(one, &control);
    for (auto *one : {listApp, statusApp})
        one->add_flag("--json", control.json, "As one JSON value");
    statusApp->add_flag("--traffic", control.traffic, "What went over its channel so far, by kind of packet");
    auto *agentApp = app.add_subcommand("agent", "The other end: mounts what a host shares");
    AddAgentOptions(agentApp, &agent);
    auto *registerApp = app.add_subcommand("register", "Enter the plug-in into the settings store");
    auto *unregisterApp = app.add_subcommand("unregister", "Remove it from there");
    ConfigWords config;
    auto *configApp = app.add_subcommand("config", "The plug-in's settings; a running share follows most");
    AddConfig(configApp, &config);

    const auto isMeant = [&](const CLI::App *one) { return one->get_name() == arguments.front(); };
    if (!arguments.empty() && !arguments.front().starts_with('-') && app.get_subcommands(isMeant).empty()) {
        Complain("there is no command \"" + arguments.front() + "\": see fodr --help");
        return EXIT_USAGE;
    }
    try {
        std::reverse(arguments.begin(), arguments.end()); // as the parser wants it
        app.parse(arguments);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error); // help and version
        Complain(std::string(error.what()) + ": see " + HelpOf(app));
        return EXIT_USAGE;
    }
    if (shareApp->parsed())
        return RunShare(share);
    if (sendApp->parsed())
        return RunShare(send);
    if (agentApp->parsed())
        return RunAgentCommand(agent);
    if (configApp->parsed())
        return RunConfig(*configApp, config);
    if (addApp->parsed())
        return RunAdd(control.processId, control.folder, control.name);
    if (removeApp->parsed())
        return RunRemove(control.processId, control.folder);
    if (listApp->parsed())
        return RunList(control.processId, control.json);
    if (statusApp->parsed())
        return control.traffic ? RunTraffic(control.processId, control.json)
                               : RunStatus(control.processId, control.json);
    return RunRegister(registerApp->parsed() && !unregisterApp->parsed());
}

} // namespace

int main(int count, char **words)
{
    fodr::platform::KeepFreedMemory();
    return Run(fodr::platform::ProgramArguments(count, words));
}
