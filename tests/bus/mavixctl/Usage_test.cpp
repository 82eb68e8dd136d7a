#include "ControlProgram.h"

#include <gtest/gtest.h>

namespace MavixTest {

namespace {

TEST(Usage, NamesTheCommandsToChooseFrom) {
    const ControlResult nothing = RunControl({});
    EXPECT_EQ(nothing.status, 2);
    EXPECT_EQ(nothing.errors.rfind("mavixctl: a command is missing, one of ", 0), 0u) << nothing.errors;
    const ControlResult unknown = RunControl({"nonsense"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.errors.rfind("mavixctl: 'nonsense' is none of ", 0), 0u) << unknown.errors;
    EXPECT_NE(unknown.errors.find("route"), std::string::npos);
    EXPECT_EQ(nothing.output + unknown.output, "");
}

struct UsageRow {
    Words arguments;
    std::string complaint;
    // Whose help it points to; the first word when empty.
    std::string command = "";
};

TEST(Usage, SaysWhichArgumentIsWrongAndWhatWasExpected) {
    const char* const interface = "com.norvale.IAVControl";
    const std::string name = "INTERFACE is missing: Name of the interface, such as com.norvale.IAVControl";
    const std::string noName = " is not an interface's name, such as com.norvale.IAVControl";
    const std::string noCode = " is not a whole number from -32768 to 32767";
    const std::string noValue = " is none of c:, s:, i:, l: and a number, str:, strz: and a text, hex: and "
                                "digits, @file, -";
    const std::string noBytes = " is not made of two hexadecimal digits a byte";
    const std::string noTypes = " is none of c, s, i, l, str, strz, hex, hex:N";
    const std::string noSeconds = " is not a number of seconds from 0 to 1000000";
    const std::string noType = " is no type of event: all, a number from 0 to 13, or one of Signal, "
                               "PipelineSignal, Data, Program, Section, TextData, Dsm, CopyProtectionInfo, "
                               "PESData, ExPESData, Ht, ATSC3Signalling, ATSC3Mpd, ATSC3Linkage";
    const std::string noHandle = " is not two whole numbers from 0 to 4294967295 with a comma";
    const std::string noCache = " is not a cache's name: a file's name, with a / at most in front";
    const UsageRow rows[] = {
        {{"route"}, name},
        {{"route", "IAVControl"}, "INTERFACE: 'IAVControl'" + noName},
        {{"route", ".com.norvale"}, "INTERFACE: '.com.norvale'" + noName},
        {{"route", "com.1norvale"}, "INTERFACE: 'com.1norvale'" + noName},
        {{"route", "com..norvale"}, "INTERFACE: 'com..norvale'" + noName},
        {{"route", "com.norvale."}, "INTERFACE: 'com.norvale.'" + noName},
        {{"route", "com.nor-vale"}, "INTERFACE: 'com.nor-vale'" + noName},
        {{"route", ""}, "INTERFACE: ''" + noName},
        {{"route", interface, "32768"}, "CODE: '32768'" + noCode},
        {{"route", interface, "-32769"}, "CODE: '-32769'" + noCode},
        {{"route", interface, "1x"}, "CODE: '1x'" + noCode},
        {{"route", interface, "0x"}, "CODE: '0x'" + noCode},
        {{"route", interface, ""}, "CODE: ''" + noCode},
        {{"route", interface, "1", "2"}, "'2' is one argument too many for mavixctl route"},
        {{"route", interface, "--nonsense"}, "'--nonsense' is no option of mavixctl route"},

        {{"call"}, name},
        {{"call", interface}, "CODE is missing: The function's code, from -32768 to 32767"},
        {{"call", interface, "1", "q:5"}, "ARGUMENT: 'q:5'" + noValue},
        {{"call", interface, "1", "5"}, "ARGUMENT: '5'" + noValue},
        {{"call", interface, "1", ""}, "ARGUMENT: ''" + noValue},
        {{"call", interface, "1", "i:1", "c:256"},
         "ARGUMENT: 'c:256' is not a whole number of 8 bits, from -128 to 255"},
        {{"call", interface, "1", "c:-129"},
         "ARGUMENT: 'c:-129' is not a whole number of 8 bits, from -128 to 255"},
        {{"call", interface, "1", "s:0x10000"},
         "ARGUMENT: 's:0x10000' is not a whole number of 16 bits, from -32768 to 65535"},
        {{"call", interface, "1", "i:4294967296"},
         "ARGUMENT: 'i:4294967296' is not a whole number of 32 bits, from -2147483648 to 4294967295"},
        {{"call", interface, "1", "l:18446744073709551616"},
         "ARGUMENT: 'l:18446744073709551616' is not a whole number of 64 bits, from -9223372036854775808 to "
         "18446744073709551615"},
        {{"call", interface, "1", "i:"},
         "ARGUMENT: 'i:' is not a whole number of 32 bits, from -2147483648 to 4294967295"},
        {{"call", interface, "1", "hex:0"}, "ARGUMENT: 'hex:0'" + noBytes},
        {{"call", interface, "1", "hex:0g"}, "ARGUMENT: 'hex:0g'" + noBytes},
        {{"call", interface, "1", "hex:0 1"}, "ARGUMENT: 'hex:0 1'" + noBytes},
        {{"call", interface, "1", "@/nonexistent"},
         "ARGUMENT: '@/nonexistent' cannot be read: No such file or directory"},
        {{"call", interface, "1", "@/"}, "ARGUMENT: '@/' cannot be read: Is a directory"},
        {{"call", interface, "1", "@/dev/zero"},
         "ARGUMENT: the payload is larger than the 16777216 bytes that a call can carry"},
        {{"call", interface, "1", "--decode", "q"}, "--decode: 'q'" + noTypes},
        {{"call", interface, "1", "--decode", "i,,i"}, "--decode: ''" + noTypes},
        {{"call", interface, "1", "--decode", "hex:x"}, "--decode: 'hex:x'" + noTypes},
        {{"call", interface, "1", "--decode"}, "--decode: 1 required TYPES missing"},
        {{"call", interface, "1", "--decode", "i", "--hex"}, "--decode excludes --hex"},
        {{"call", interface, "1", "--repeat", "0"},
         "--repeat: '0' is not a whole number from 1 to 1000000000"},
        {{"call", interface, "1", "--wait", "-1"}, "--wait: '-1'" + noSeconds},
        {{"call", interface, "1", "--wait", "soon"}, "--wait: 'soon'" + noSeconds},

        {{"listen"}, "TYPE is missing: Types of events by name or number, or all"},
        {{"listen", "data"}, "TYPE: 'data'" + noType},
        {{"listen", "Data", "14"}, "TYPE: '14'" + noType},
        {{"listen", "Data", "--id", "2147483648"},
         "--id: '2147483648' is not a whole number from -2147483648 to 2147483647"},
        {{"listen", "Data", "--handle", "1"}, "--handle: '1'" + noHandle},
        {{"listen", "Data", "--handle", "1,2,3"}, "--handle: '1,2,3'" + noHandle},
        {{"listen", "Data", "--handle", "-1,2"}, "--handle: '-1,2'" + noHandle},
        {{"listen", "Data", "--count", "0"}, "--count: '0' is not a whole number from 1 to 2147483647"},
        {{"listen", "Data", "--timeout", "1e7"}, "--timeout: '1e7'" + noSeconds},

        {{"monitor", "--interface", "IAVControl"}, "--interface: 'IAVControl'" + noName},

        {{"session"}, "a command is missing, one of open, close, dump, terminated, trace"},
        {{"session", "begin"}, "'begin' is none of open, close, dump, terminated, trace"},
        {{"session", "open", "now"},
         "'now' is one argument too many for mavixctl session open",
         "session open"},
        {{"session", "open", "--hold", "x"}, "--hold: 'x'" + noSeconds, "session open"},
        {{"session", "close", "--hold", "1"},
         "'--hold' is no option of mavixctl session close",
         "session close"},
        {{"session", "trace"}, "ID is missing: The trace's number", "session trace"},
        {{"session", "trace", "x"},
         "ID: 'x' is not a whole number from -9223372036854775807 to 9223372036854775807",
         "session trace"},
        {{"session", "trace", "1", "--param", "2147483648"},
         "--param: '2147483648' is not a whole number from -2147483648 to 2147483647",
         "session trace"},

        {{"cache"}, "a command is missing, one of get, set, reset, list, verify, watch"},
        {{"cache", "delete"}, "'delete' is none of get, set, reset, list, verify, watch"},
        {{"cache", "get"}, "NAME is missing: The cache's name", "cache get"},
        {{"cache", "get", "demo"}, "KEY is missing: The value's name", "cache get"},
        {{"cache", "get", "demo", ""}, "KEY: '' is not a value's name", "cache get"},
        {{"cache", "get", "demo", "key", "--id", "-1"},
         "--id: '-1' is not a whole number from 0 to 9223372036854775807",
         "cache get"},
        {{"cache", "get", "a/b", "key"}, "NAME: 'a/b'" + noCache, "cache get"},
        {{"cache", "list", ""}, "NAME: ''" + noCache, "cache list"},
        {{"cache", "list", ".."}, "NAME: '..'" + noCache, "cache list"},
        {{"cache", "verify", "/"}, "NAME: '/'" + noCache, "cache verify"},
        {{"cache", "set", "demo", "key"},
         "VALUE is missing: The value's bytes, in the words that the arguments of call have",
         "cache set"},
        {{"cache", "set", "demo", "key", "5"}, "VALUE: '5'" + noValue, "cache set"},
        {{"cache", "reset", "demo", "key", "more"},
         "'more' is one argument too many for mavixctl cache reset",
         "cache reset"},
        {{"cache", "watch", "demo", "--interval", "-1"}, "--interval: '-1'" + noSeconds, "cache watch"},

        {{"completion"}, "SHELL is missing: The shell"},
        {{"completion", "ksh"}, "SHELL: 'ksh' is none of bash, zsh, fish"},

        {{"bench"}, name},
        {{"bench", interface}, "CODE is missing: The function's code, from -32768 to 32767"},
        {{"bench", interface, "1", "--size", "16777217"},
         "--size: '16777217' is not a whole number from 0 to 16777216"},
        {{"bench", interface, "1", "--threads", "0"}, "--threads: '0' is not a whole number from 1 to 1024"},
        {{"bench", interface, "1", "--seconds", "nan"}, "--seconds: 'nan'" + noSeconds},
    };
    for (const UsageRow& row : rows) {
        const ControlResult result = RunControl(row.arguments);
        EXPECT_EQ(result.status, 2) << row.complaint;
        const std::string command = row.command.empty() ? row.arguments[0] : row.command;
        EXPECT_EQ(result.errors, "mavixctl: " + row.complaint + "; see mavixctl " + command + " --help\n");
        EXPECT_EQ(result.output, "") << row.complaint;
    }
}

TEST(Usage, HelpAndVersionGoToStandardOutput) {
    for (const char* word : {"--help", "--version"}) {
        const ControlResult result = RunControl({word});
        EXPECT_EQ(result.status, 0) << word;
        EXPECT_NE(result.output.find("mavixctl"), std::string::npos) << word;
        EXPECT_EQ(result.errors, "") << word;
    }
}

TEST(Usage, OutputThatCannotBeWrittenIsAFailure) {
    for (const char* output : {"/dev/full", "&-"}) {
        const auto options = TCControlProgram::Options::Behind(std::string("exec \"$@\" >") + output);
        const ControlResult result = RunControl({"--help"}, options);
        EXPECT_EQ(result.status, 1) << output;
        EXPECT_EQ(result.errors, "mavixctl: standard output cannot be written\n") << output;
    }
}

} // namespace

} // namespace MavixTest
