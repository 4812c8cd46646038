#include "Cli.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kestrow::tool {

namespace {

struct CommandHelp {
    const char* name;
    const char* usage;
    const char* text;
};

constexpr CommandHelp COMMANDS[] = {
    {"volumes", "kestrow volumes",
     "Lists the attached drives and their lettered volumes: file system, size and\n"
     "offset on the drive.\n"},
    {"info", "kestrow info C:",
     "Shows the volume's description, then its MFT: the runs on the drive, the\n"
     "record slots they hold and the record size.\n"},
    {"record", "kestrow record C: N [--all]",
     "Shows MFT record N: name, full path, parent, the times of its $FILE_NAME\n"
     "attribute (created, modified, last read; ISO 8601, UTC; not the\n"
     "$STANDARD_INFORMATION times), attribute flags, sizes, attributes,\n"
     "external references, cluster ranges and, for a directory, the entries of\n"
     "its index.\n"
     "With --all, shows what the analysts' record reader sees, for a free\n"
     "(deleted) record too: the header (sequence, flags, link count, base\n"
     "record, LSN), the $STANDARD_INFORMATION times and flags, every\n"
     "$FILE_NAME with its own times, every stream and the attribute list.\n"},
    {"ls", "kestrow ls C: PATH-OR-INDEX",
     "Lists a directory's children: record index, name, size, modification\n"
     "time (of the $FILE_NAME attribute) and a directory flag. PATH may be\n"
     "\\\\.\\C:\\Dir, C:\\Dir or /Dir; a number is taken as a record index (5 is\n"
     "the root directory). Directory names match in any letter case, the last\n"
     "name only in its stored case.\n"},
    {"paths", "kestrow paths C:",
     "Prints every in-use record with its full path, one per line, in record\n"
     "order (the counterpart of `fls -r -p`).\n"},
    {"timeline", "kestrow timeline C: [--csv | --jsonl]",
     "Writes every file's times as a bodyfile (The Sleuth Kit 3.0+ format, for\n"
     "`mactime -b`), like `fls -r -m /`: a line per stream with the\n"
     "$STANDARD_INFORMATION times, a \"($FILE_NAME)\" line per name with its\n"
     "own times, named streams as name:stream, and deleted records still in\n"
     "free MFT slots marked \"(deleted)\" with the path their parents give.\n"
     "--csv: a header row, then one row per record and name with both time\n"
     "sets in ISO 8601 UTC. --jsonl (or --json): one JSON object per record.\n"},
    {"find", "kestrow find C: PATH",
     "Prints the records whose full path is PATH. Every name of the path must\n"
     "match in its stored letter case.\n"},
    {"owner", "kestrow owner C: CLUSTER",
     "Tells which file owns a cluster of the volume (the cluster numbering of\n"
     "`ifind -d`, counted from the start of the volume) and, when the cluster\n"
     "holds part of the MFT, which MFT records lie in it.\n"},
    {"extents", "kestrow extents C: FILE",
     "Lists a file's extents as sector ranges of the physical drive. A file\n"
     "kept inside its MFT record has none. FILE is looked up as Windows does:\n"
     "every name matches in any letter case.\n"},
    {"dump", "kestrow dump C: SECTOR [COUNT]\n       kestrow dump --drive N SECTOR [COUNT]",
     "Hex dump of COUNT sectors (default 1) from SECTOR of the volume, or of\n"
     "physical drive N with --drive.\n"},
    {"bitmap",
     "kestrow bitmap C:", "Counts used and free clusters and lists the runs of used clusters.\n"},
};

constexpr const char* GENERAL_HELP =
    "kestrow: reads an NTFS volume's Master File Table straight from the disk.\n"
    "\n"
    "usage: kestrow [--disk PATH]... [--json] [-v] COMMAND ARGUMENTS\n"
    "\n"
    "commands:\n"
    "  volumes                       attached drives and their volumes\n"
    "  info C:                       the volume and its MFT\n"
    "  record C: N                   one MFT record\n"
    "  ls C: PATH-OR-INDEX           a directory's children\n"
    "  paths C:                      every in-use record with its full path\n"
    "  timeline C: [--csv|--jsonl]   every file's times as a bodyfile (for mactime)\n"
    "  find C: PATH                  the records at a full path\n"
    "  owner C: CLUSTER              which file owns a cluster\n"
    "  extents C: FILE               a file's extents on the physical drive\n"
    "  dump C: SECTOR [COUNT]        hex dump of sectors (--drive N: of a drive)\n"
    "  bitmap C:                     used and free clusters\n"
    "\n"
    "options:\n"
    "  --disk PATH   attach a disk image or block device (repeatable), or a\n"
    "                file holding an extracted $MFT; drive letters are given\n"
    "                from C: on, disk by disk. Without it,\n"
#if defined(_WIN32)
    "                KESTROW_DISKS (paths separated by ';') is used. Images\n"
#else
    "                KESTROW_DISKS (paths separated by ':') is used. Images\n"
#endif
    "                are only ever opened read-only.\n"
    "  --json        machine-readable output\n"
    "  -v            show the library's diagnostic log lines on stderr\n"
    "  --drive N     (dump) read physical drive N instead of a volume\n"
    "  --all         (record) what the analysts' record reader sees\n"
    "  --csv         (timeline) CSV instead of a bodyfile\n"
    "  --jsonl       (timeline) JSON Lines instead of a bodyfile\n"
    "  -h, --help    the help text; `kestrow COMMAND --help` for one command's\n"
    "  -V, --version the library's version\n"
    "\n"
    "Exit status: 0 on success, 1 when the command failed, 2 for a bad command line.\n";

const CommandHelp* findCommand(const std::string& name) {
    for (const CommandHelp& command : COMMANDS)
        if (name == command.name)
            return &command;
    return nullptr;
}

// "--disk=PATH" or "--disk PATH": the value, consuming the next argument when
// needed.
std::string optionValue(const std::string& argument, const char* option, int& i, int argc,
                        char** argv) {
    const std::size_t length = std::strlen(option);
    if (argument.size() > length && argument[length] == '=')
        return argument.substr(length + 1);
    if (i + 1 >= argc)
        throw UsageError(std::string(option) + " needs a value");
    return argv[++i];
}

bool isOption(const std::string& argument, const char* option) {
    const std::size_t length = std::strlen(option);
    return argument.compare(0, length, option) == 0 &&
           (argument.size() == length || argument[length] == '=');
}

} // namespace

Options parseCommandLine(int argc, char** argv) {
    Options options;
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (optionsEnded || argument.empty() || argument[0] != '-' || argument == "-") {
            if (options.command.empty())
                options.command = argument;
            else
                options.arguments.push_back(argument);
            continue;
        }
        if (argument == "--") {
            optionsEnded = true;
        } else if (isOption(argument, "--disk")) {
            options.disks.push_back(optionValue(argument, "--disk", i, argc, argv));
        } else if (argument == "--json") {
            options.json = true;
        } else if (argument == "-v" || argument == "--verbose") {
            options.verbose = true;
        } else if (argument == "-h" || argument == "--help") {
            options.help = true;
        } else if (argument == "--all") {
            options.all = true;
        } else if (argument == "--csv") {
            options.csv = true;
        } else if (argument == "--jsonl") {
            options.jsonl = true;
        } else if (argument == "-V" || argument == "--version") {
            options.version = true;
        } else if (isOption(argument, "--drive")) {
            const std::string value = optionValue(argument, "--drive", i, argc, argv);
            const unsigned long long drive = parseNumber(value, "drive number");
            if (drive > 0xFFFFFFFFULL)
                throw UsageError("drive number out of range: " + value);
            options.drive = static_cast<unsigned int>(drive);
        } else {
            throw UsageError("unknown option: " + argument);
        }
    }
    if (options.command == "help") {
        // `kestrow help ls` is `kestrow ls --help`.
        options.help = true;
        options.command = options.arguments.empty() ? "" : options.arguments.front();
        options.arguments.clear();
    }
    if (!options.command.empty() && !isCommand(options.command))
        throw UsageError("unknown command: " + options.command + " (see kestrow --help)");
    if ((options.csv || options.jsonl) && options.command != "timeline" && !options.help)
        throw UsageError(std::string(options.csv ? "--csv" : "--jsonl") +
                         " is an option of timeline only");
    if (options.all && options.command != "record" && !options.help)
        throw UsageError("--all is an option of record only");
    return options;
}

bool isCommand(const std::string& name) {
    return findCommand(name) != nullptr;
}

std::string usageOf(const std::string& command) {
    const CommandHelp* help = findCommand(command);
    return help ? help->usage : "kestrow COMMAND ARGUMENTS";
}

std::string helpText(const std::string& command) {
    const CommandHelp* help = findCommand(command);
    if (help == nullptr)
        return GENERAL_HELP;
    return std::string("usage: ") + help->usage + "\n\n" + help->text +
           "\noptions: --disk PATH, --json, -v (see kestrow --help)\n";
}

unsigned long long parseNumber(const std::string& text, const char* what) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    if (digits.empty())
        throw UsageError(std::string("missing ") + what);
    for (const char c : digits)
        if (!(hex ? std::isxdigit(static_cast<unsigned char>(c))
                  : std::isdigit(static_cast<unsigned char>(c))))
            throw UsageError(std::string("not a number for ") + what + ": " + text);
    errno = 0;
    const unsigned long long value = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
    if (errno == ERANGE)
        throw UsageError(std::string(what) + " out of range: " + text);
    return value;
}

char parseDriveLetter(const std::string& text) {
    const bool shapeOk =
        (text.size() == 1) || (text.size() == 2 && text[1] == ':') ||
        (text.size() == 3 && text[1] == ':' && (text[2] == '\\' || text[2] == '/'));
    if (!shapeOk || !std::isalpha(static_cast<unsigned char>(text[0])))
        throw UsageError("not a drive letter: '" + text + "' (expected something like C:)");
    return static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
}

} // namespace kestrow::tool
