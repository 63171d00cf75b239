#include "LogsController.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <set>
#include <string>

TEST(HostNames, CommandNamesSitAtTheirSelectorValues)
{
    // An entry lost or added shifts every later name; these anchors span the table.
    EXPECT_STREQ(PFCmdNames[0], "PF_Cmd_ABOUT");
    EXPECT_STREQ(PFCmdNames[1], "PF_Cmd_GLOBAL_SETUP");
    EXPECT_STREQ(PFCmdNames[11], "PF_Cmd_RENDER");
    EXPECT_STREQ(PFCmdNames[23], "PF_Cmd_SMART_PRE_RENDER");
    EXPECT_STREQ(PFCmdNames[24], "PF_Cmd_SMART_RENDER");
    EXPECT_STREQ(PFCmdNames[31], "PF_Cmd_SMART_RENDER_GPU");
    EXPECT_STREQ(PFCmdNames[32], "PF_Cmd_GPU_DEVICE_SETUP");
    EXPECT_STREQ(PFCmdNames[33], "PF_Cmd_GPU_DEVICE_SETDOWN");
    EXPECT_STREQ(PFCmdNames[34], "PF_Cmd_NUM_CMDS");

    std::set<std::string> distinct;
    for (const char* name : PFCmdNames) {
        EXPECT_EQ(std::string(name).rfind("PF_Cmd_", 0), 0u) << name;
        distinct.insert(name);
    }
    EXPECT_EQ(distinct.size(), std::size(PFCmdNames));
}

TEST(HostNames, ErrorTextNamesKnownCodesExactly)
{
    EXPECT_EQ(PFErrText(0), "PF_Err_NONE (0)");
    EXPECT_EQ(PFErrText(4), "PF_Err_OUT_OF_MEMORY (4)");
    EXPECT_EQ(PFErrText(512), "PF_Err_INTERNAL_STRUCT_DAMAGED (512)");
    EXPECT_EQ(PFErrText(517), "PF_Interrupt_CANCEL (517)");
    EXPECT_EQ(PFErrText(518), "PF_Err_CANNOT_PARSE_KEYFRAME_TEXT (518)");
}

TEST(HostNames, ErrorTextOfUnknownCodesKeepsTheNumber)
{
    // Neighbours of named codes: the lookup is by exact key, not by range.
    EXPECT_EQ(PFErrText(13), "PF_Err?UNKNOWN (13)");
    EXPECT_EQ(PFErrText(5), "PF_Err?UNKNOWN (5)");
    EXPECT_EQ(PFErrText(511), "PF_Err?UNKNOWN (511)");
    EXPECT_EQ(PFErrText(519), "PF_Err?UNKNOWN (519)");
    EXPECT_EQ(PFErrText(-1), "PF_Err?UNKNOWN (-1)");
    EXPECT_EQ(PFErrText(std::numeric_limits<std::int32_t>::min()), "PF_Err?UNKNOWN (-2147483648)");
}
