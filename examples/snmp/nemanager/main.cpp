#include "Commands.h"
#include "HostLog.h"
#include "Interrupt.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <stdexcept>

namespace {

constexpr const char* ABOUT =
    R"(Asks network elements that speak SNMP v2c over TCP, TLS or OSI transport class 4 (TP4).

Elements are given one by one, [NAME=]tcp:HOST:PORT, [NAME=]tls:HOST:PORT or
[NAME=]tp4:ADDRESS/SELECTOR (hex digits, and up to 15 characters), or in a file with a line for
each: NAME ADDRESS [community=TEXT] [timeout=SECONDS] [authority=FILE] [name=TEXT].)";

constexpr const char* EXAMPLES = R"(Exit status:
  0  everything was answered
  1  an element is not connected, does not answer, or refuses
  2  wrong usage
  130  interrupted

Examples:
  nemanager -e tcp:10.0.0.7:161 get 1.3.6.1.2.1.1.5.0
  nemanager -e ne3=tls:10.0.0.9:10161 --authority ca.pem --peer ne3.example walk 1.3.6.1.2.1.2
  nemanager -e tp4:49000f0102/snmp get 1.3.6.1.2.1.1.5.0
  nemanager -f elements set 1.3.6.1.2.1.1.6.0 s "Shelf 4"
  nemanager -f elements watch 1.3.6.1.2.1.1.3.0 --interval 5)";

// More elements than one command should open at once.
constexpr std::size_t MAX_ELEMENTS = 1000;

SnmpOid ParseName(const std::string& strText)
{
    const auto name = SnmpOid::FromText(strText);
    if (!name)
        throw UsageError("\"" + strText + "\" is no object identifier; it should be like 1.3.6.1.2.1.1.5.0");
    return *name;
}

std::vector<SnmpOid> ParseNames(const std::vector<std::string>& texts)
{
    std::vector<SnmpOid> names;
    names.reserve(texts.size());
    for (const std::string& strText : texts)
        names.push_back(ParseName(strText));
    return names;
}

SnmpVarBind ParseValue(const std::string& strName, const std::string& strType, const std::string& strText)
{
    const auto value = strType.size() == 1 ? SnmpValue::FromText(strType[0], strText) : std::nullopt;
    if (!value)
        throw UsageError("\"" + strText + "\" is no value of type \"" + strType +
                         "\"; types are i u c C t s x o a, see --help");
    return {ParseName(strName), *value};
}

struct Arguments
{
    std::vector<std::string> elements;
    std::string strFile;
    ElementDefaults defaults;
    std::vector<std::string> names;
    std::string strName;
    std::string strType;
    std::string strValue;
    int nRepetitions = 50;
    double dInterval = 2;
    int nRounds = 0;
    std::string strLaboratory;
    std::string strSettings;
    bool bVerbose = false;
};

std::vector<ElementSettings> Elements(const Arguments& arguments)
{
    std::vector<ElementSettings> elements;
    if (!arguments.strFile.empty())
        elements = ElementsFromFile(arguments.strFile, arguments.defaults);
    for (const std::string& strText : arguments.elements)
        elements.push_back(ElementFromText(strText, arguments.defaults));
    if (elements.empty())
        throw UsageError("no element is given; use --element or --elements");
    std::set<std::string> names;
    for (const ElementSettings& element : elements)
    {
        if (!names.insert(element.strName).second)
            throw UsageError("two elements have the name \"" + element.strName + "\"");
    }
    if (elements.size() > MAX_ELEMENTS)
        throw UsageError("more than " + std::to_string(MAX_ELEMENTS) +
                         " elements are too many for one process");
    return elements;
}

void PrintLine(const std::string& strLine)
{
    std::printf("%s\n", strLine.c_str());
    std::fflush(stdout);
}

int Run(const CLI::App& app, const Arguments& arguments)
{
    if (app.got_subcommand("demo"))
        return Demo(arguments.strLaboratory);
    // Everything is looked at before the first element is bothered.
    const bool bSet = app.got_subcommand("set");
    const bool bMany = app.got_subcommand("get") || app.got_subcommand("watch");
    const std::vector<SnmpOid> names = bMany ? ParseNames(arguments.names) : std::vector<SnmpOid>();
    const SnmpVarBind value =
        bSet ? ParseValue(arguments.strName, arguments.strType, arguments.strValue) : SnmpVarBind();
    const SnmpOid root = app.got_subcommand("walk") ? ParseName(arguments.strName) : SnmpOid();
    if (std::isnan(arguments.dInterval))
        throw UsageError("the interval is no number");
    const bool bListen = app.got_subcommand("listen");
    Manager manager(Elements(arguments), bListen ? &PrintLine : nullptr);
    manager.Start();
    if (bListen)
        return Listen();
    if (bSet)
        return Set(manager, {value});
    if (app.got_subcommand("walk"))
        return Walk(manager, root, arguments.nRepetitions);
    if (app.got_subcommand("watch"))
        return Watch(manager, names, arguments.dInterval, arguments.nRounds);
    return Get(manager, names);
}

void Describe(CLI::App& app, Arguments& arguments)
{
    app.footer(EXAMPLES);
    app.require_subcommand(1);
    app.fallthrough(); // options of the program may stand behind the command
    app.add_option("-e,--element", arguments.elements,
                   "Element, [NAME=]tcp:HOST:PORT, tls:HOST:PORT or tp4:ADDRESS/SELECTOR; may be repeated")
        ->type_name("ADDRESS")
        ->allow_extra_args(false);
    app.add_option("-f,--elements", arguments.strFile, "File of elements")
        ->option_text("FILE")
        ->check(CLI::ExistingFile);
    app.add_option("-c,--community", arguments.defaults.strCommunity,
                   "Community of elements that have none of their own")
        ->option_text("TEXT [public]");
    app.add_option("-t,--timeout", arguments.defaults.nTimeOut,
                   "Seconds that an answer may take, and a connection at the start")
        ->option_text("SECONDS [5]")
        ->check(CLI::Range(1, 3600));
    app.add_option("--authority", arguments.defaults.strAuthority,
                   "Certificates (PEM) that are trusted over TLS; else the system's")
        ->type_name("FILE");
    app.add_option("--peer", arguments.defaults.strPeerName,
                   "Name that a certificate must be for; else the IP address")
        ->type_name("NAME");

    app.add_option("--settings", arguments.strSettings, "Settings of the adapter framework and its log (INI)")
        ->envname("TARN_CFG_FILE")
        ->option_text("FILE")
        ->check(CLI::ExistingFile);
    app.add_flag("-v,--verbose", arguments.bVerbose,
                 "Shows what the adapter framework logs, bytes included; not with --settings");

    CLI::App* pGet = app.add_subcommand("get", "Shows values");
    pGet->add_option("name", arguments.names, "Object identifiers")->required()->type_name("OID");
    CLI::App* pWalk = app.add_subcommand("walk", "Shows everything below a name");
    pWalk->add_option("name", arguments.strName, "Object identifier")->required()->type_name("OID");
    pWalk->add_option("--repetitions", arguments.nRepetitions, "Values asked for at once")
        ->option_text("NUMBER [50]")
        ->check(CLI::Range(1, 1000));
    CLI::App* pSet = app.add_subcommand("set", "Gives a name a new value");
    pSet->add_option("name", arguments.strName, "Object identifier")->required()->type_name("OID");
    pSet->add_option("type", arguments.strType,
                     "i integer, u unsigned, c counter, C counter of 64 bits, t time ticks, s text, "
                     "x hex digits, o object identifier, a IPv4 address")
        ->required()
        ->type_name("LETTER");
    pSet->add_option("value", arguments.strValue,
                     "The value; for one that begins with - put -- in front of the name")
        ->required()
        ->type_name("TEXT");
    CLI::App* pWatch =
        app.add_subcommand("watch", "Shows values again and again: a table on a terminal, else lines");
    pWatch->add_option("name", arguments.names, "Object identifiers")->required()->type_name("OID");
    pWatch->add_option("-i,--interval", arguments.dInterval, "Seconds between two questions")
        ->option_text("SECONDS [2]")
        ->check(CLI::Range(0.1, 86400.0));
    pWatch
        ->add_option("-n,--rounds", arguments.nRounds,
                     "Ends after so many questions; else it goes on until it is interrupted")
        ->option_text("NUMBER")
        ->check(CLI::Range(1, 1000000000));
    app.add_subcommand(
        "listen",
        "Shows traps and informs, which it answers, and connections that open and break, until it is "
        "interrupted");
    CLI::App* pDemo = app.add_subcommand(
        "demo", "Shows and checks everything in a laboratory of real elements; scripts/demo makes one");
    pDemo->add_option("--laboratory", arguments.strLaboratory, "Its folder")
        ->required()
        ->envname("TARN_LAB")
        ->option_text("FOLDER")
        ->check(CLI::ExistingDirectory);
    for (CLI::App* pCommand : app.get_subcommands(nullptr))
        pCommand->footer("Elements, exit status and everything else: nemanager --help");
}

int RunProgram(int argc, char** argv)
{
    CLI::App app(ABOUT, "nemanager");
    Arguments arguments;
    Describe(app, arguments);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        const std::vector<std::string> words = app.remaining();
        if (error.get_exit_code() == 0) // help was asked for
            return app.exit(error);
        if (app.get_subcommands().empty() && !words.empty())
            throw UsageError("\"" + words.front() + "\" is no command; see --help");
        throw UsageError(std::string(error.what()) + "; see --help");
    }
    if (arguments.bVerbose && !arguments.strSettings.empty())
        throw UsageError("with settings (--settings, TARN_CFG_FILE) the log goes where their [log] says; "
                         "leave --verbose out");
    if (arguments.strSettings.empty() || app.got_subcommand("demo"))
        HostLog::Install(arguments.bVerbose);
    else
        // NOLINTNEXTLINE(concurrency-mt-unsafe): there are no other threads yet
        setenv("TARN_CFG_FILE", arguments.strSettings.c_str(), 1);
    Interrupt::Catch();
    const int iCode = Run(app, arguments);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw std::runtime_error("the standard output could not be written");
    if (iCode == EXIT_SOME_FAILED && SnmpProtocol::s_Counts.ulMalformed != 0)
        std::fprintf(
            stderr,
            "nemanager: something was received that is no SNMP v2c; the log shows what (--verbose)\n");
    return iCode;
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        return RunProgram(argc, argv);
    }
    catch (const UsageError& error)
    {
        std::fprintf(stderr, "nemanager: %s\n", error.what());
        return EXIT_WRONG_USAGE;
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "nemanager: %s\n", error.what());
        return EXIT_SOME_FAILED;
    }
}
