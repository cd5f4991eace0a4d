// SPDX-License-Identifier: Apache-2.0
#include "platform/properties.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "support/test_env.h"

namespace {

using namespace std::string_literals;

std::string get(const char *key, const char *def = "dflt")
{
    char value[PROPERTY_VALUE_MAX];
    memset(value, 'Z', sizeof value);
    int len = property_get(key, value, def);
    EXPECT_EQ(size_t(len), strlen(value));
    return value;
}

TEST(Properties, FileRulesForKeysValuesAndComments)
{
    test_root root;
    root.properties("# board identity\n"
                    " \t ro.hardware \t= board\n" // spaces and tabs around the key
                    // Found by fuzzing: a NUL byte inside a value made the
                    // returned length disagree with the string the caller sees.
                    "nul=orl\0une_sim\n"
                    "ro.hardware2=other\n"
                    "ro.revision=4\r\n"
                    "persist.dbg.flight_baro=1\n"
                    "persist.dbg.flight_baro=2\n"
                    "empty=\n"
                    "kv=a=b\n"
                    "no equals sign here\n"
                    "#ro.revision=9\n"s);
    EXPECT_EQ(get("ro.hardware"), " board"); // the value is the rest of the line
    EXPECT_EQ(get("ro.hardware2"), "other");
    EXPECT_EQ(get("ro.revision"), "4");
    EXPECT_EQ(get("persist.dbg.flight_baro"), "2"); // the last one wins
    EXPECT_EQ(get("empty"), "");
    EXPECT_EQ(get("kv"), "a=b");
    EXPECT_EQ(get("nul"), "orl"); // get() also checks the returned length
    EXPECT_EQ(get("ro"), "dflt");
    EXPECT_EQ(get("ro", nullptr), "");
    EXPECT_EQ(get("", "x"), "x");
}

TEST(Properties, OverlongValueIsCutToTheBuffer)
{
    test_root root;
    root.properties("long=" + std::string(300, 'v') + "\nlast=ok\n");
    char value[PROPERTY_VALUE_MAX + 8];
    memset(value, 'Z', sizeof value);
    EXPECT_EQ(property_get("long", value, ""), int(PROPERTY_VALUE_MAX - 1));
    EXPECT_EQ(std::string(value), std::string(PROPERTY_VALUE_MAX - 1, 'v'));
    for (size_t i = PROPERTY_VALUE_MAX; i < sizeof value; i++)
        EXPECT_EQ(value[i], 'Z');
    std::string long_default(200, 'd');
    EXPECT_EQ(get("missing", long_default.c_str()), std::string(PROPERTY_VALUE_MAX - 1, 'd'));
    EXPECT_EQ(get("last"), "ok");
}

TEST(Properties, EnvironmentNamesTheFile)
{
    test_root root;
    EXPECT_EQ(get("ro.hardware"), "dflt"); // no file at all
    root.properties("ro.hardware=fromroot\n");
    write_file(root.path() + "/elsewhere.prop", "ro.hardware=fromenv\n");
    setenv(kPropertiesEnv, (root.path() + "/elsewhere.prop").c_str(), 1);
    EXPECT_EQ(get("ro.hardware"), "fromenv");
    unsetenv(kPropertiesEnv);
    EXPECT_EQ(get("ro.hardware"), "fromroot");
}

} // namespace
