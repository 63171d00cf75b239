// The parameter table, its lookup, and the bytes of the plug-in property list.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Kernel_Data.h"
#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_PiPL.h"

namespace {

TEST(ParamTable, RowsFitTheHostAndDefaultsLieInRange) {
  const ParamTableRows& table = ParamTable();
  for (const ParamRecord& row : table) {
    SCOPED_TRACE(row.name);
    EXPECT_LE(row.name.size(), 31u);      // the host keeps 31 characters
    EXPECT_EQ(row.flags.value_or(0), 0);  // no row asks to hear of changes
    if (row.kind == ParamKind::FloatSlider) {
      EXPECT_LE(*row.min, std::get<float>(row.defaultValue));
      EXPECT_LE(std::get<float>(row.defaultValue), *row.max);
    } else if (row.kind == ParamKind::Popup) {  // After Effects counts from 1
      EXPECT_GE(std::get<int32_t>(row.defaultValue), 1);
      EXPECT_LE(std::get<int32_t>(row.defaultValue), CountPopupChoices(std::get<std::string>(*row.value)));
    }
  }
  // A stack holds at least two frame pairs and never outgrows KernelData's origins.
  const ParamRecord& frames = table[FindParamIndex(PARAM_FRAMES, table)];
  EXPECT_GE(*frames.min, 3.0f);
  EXPECT_LE(*frames.max, static_cast<float>(KERNEL_DATA_MAX_FRAMES));
}

TEST(FindParamIndex, FirstMatchWinsAndUnknownIdsThrow) {
  const ParamTableRows twice = {ParamRecord{7, ParamKind::Checkbox}, ParamRecord{9, ParamKind::Popup},
                                ParamRecord{9, ParamKind::Checkbox}};
  EXPECT_EQ(FindParamIndex(9, twice), 1);
  for (int32_t missing : {2, 25, -1}) {
    try {
      FindParamIndex(missing, ParamTable());
      ADD_FAILURE() << missing << " found";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Parameter with given Disk ID not found");
    }
  }
}

TEST(PiPL, ExactBytes) {
  // clang-format off
  const std::vector<uint8_t> expected = {
    0x01, 0x00,  0x00, 0x00, 0x00, 0x00,  0x0C, 0x00, 0x00, 0x00,
    // kind: eFKT
    'M', 'I', 'B', '8',  'd', 'n', 'i', 'k',  0, 0, 0, 0,  4, 0, 0, 0,  'T', 'K', 'F', 'e',
    // name
    'M', 'I', 'B', '8',  'e', 'm', 'a', 'n',  0, 0, 0, 0,  20, 0, 0, 0,
    16, 'T', 'r', 'e', 'm', 'o', 'r', ' ', 'D', 'i', 's', 't', 'i', 'l', 'l', 'e', 'r', 0, 0, 0,
    // catg
    'M', 'I', 'B', '8',  'g', 't', 'a', 'c',  0, 0, 0, 0,  20, 0, 0, 0,
    19, 'H', 'a', 'r', 'b', 'o', 'u', 'r', ' ', 'L', 'a', 'n', 't', 'e', 'r', 'n', ' ', 'L', 'a', 'b',
    // 8664: entry point
    'M', 'I', 'B', '8',  '4', '6', '6', '8',  0, 0, 0, 0,  12, 0, 0, 0,
    'E', 'f', 'f', 'e', 'c', 't', 'M', 'a', 'i', 'n', 0, 0,
    // ePVR 2.0
    'M', 'I', 'B', '8',  'R', 'V', 'P', 'e',  0, 0, 0, 0,  4, 0, 0, 0,  2, 0, 0, 0,
    // eSVR 13.28
    'M', 'I', 'B', '8',  'R', 'V', 'S', 'e',  0, 0, 0, 0,  4, 0, 0, 0,  13, 0, 28, 0,
    // eVER
    'M', 'I', 'B', '8',  'R', 'E', 'V', 'e',  0, 0, 0, 0,  4, 0, 0, 0,  0x01, 0x00, 0x08, 0x00,
    // eINF: two bytes of data, two of padding
    'M', 'I', 'B', '8',  'F', 'N', 'I', 'e',  0, 0, 0, 0,  2, 0, 0, 0,  0, 0, 0, 0,
    // eGLO
    'M', 'I', 'B', '8',  'O', 'L', 'G', 'e',  0, 0, 0, 0,  4, 0, 0, 0,  0x04, 0x84, 0x00, 0x06,
    // eGL2
    'M', 'I', 'B', '8',  '2', 'L', 'G', 'e',  0, 0, 0, 0,  4, 0, 0, 0,  0x08, 0x14, 0x00, 0x0B,
    // eMNA
    'M', 'I', 'B', '8',  'A', 'N', 'M', 'e',  0, 0, 0, 0,  8, 0, 0, 0,  6, 'H', 'L', 'T', 'R', 'D', 'I', 0,
    // aeFL
    'M', 'I', 'B', '8',  'L', 'F', 'e', 'a',  0, 0, 0, 0,  4, 0, 0, 0,  8, 0, 0, 0,
  };
  // clang-format on
  EXPECT_EQ(BuildPiPL(), expected);
}

}  // namespace
