#include "LogsController.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>

TEST(HostNames, CommandNamesSitAtTheirSelectorValues)
{
    // An entry lost or added shifts every later name; these anchors span the table.
    const std::pair<int, const char*> anchors[] = {
        {0, "PF_Cmd_ABOUT"},
        {1, "PF_Cmd_GLOBAL_SETUP"},
        {11, "PF_Cmd_RENDER"},
        {23, "PF_Cmd_SMART_PRE_RENDER"},
        {24, "PF_Cmd_SMART_RENDER"},
        {31, "PF_Cmd_SMART_RENDER_GPU"},
        {32, "PF_Cmd_GPU_DEVICE_SETUP"},
        {33, "PF_Cmd_GPU_DEVICE_SETDOWN"},
        {34, "PF_Cmd_NUM_CMDS"},
    };
    for (const auto& [selector, name] : anchors) {
        EXPECT_STREQ(PFCmdNames[selector], name) << selector;
    }
}

TEST(HostNames, ErrorTextNamesKnownCodesAndKeepsTheNumberOfOthers)
{
    const std::pair<std::int32_t, const char*> cases[] = {
        {0, "PF_Err_NONE (0)"},
        {512, "PF_Err_INTERNAL_STRUCT_DAMAGED (512)"},
        {518, "PF_Err_CANNOT_PARSE_KEYFRAME_TEXT (518)"},
        // Neighbours of named codes: the lookup is by exact key, not by range.
        {13, "PF_Err?UNKNOWN (13)"},
        {511, "PF_Err?UNKNOWN (511)"},
        {519, "PF_Err?UNKNOWN (519)"},
        {std::numeric_limits<std::int32_t>::min(), "PF_Err?UNKNOWN (-2147483648)"},
    };
    for (const auto& [code, text] : cases) {
        EXPECT_EQ(PFErrText(code), text) << code;
    }
}
