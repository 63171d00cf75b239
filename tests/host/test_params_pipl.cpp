// The parameter table, lookups, host-to-working-value rules, and the bytes of
// the plug-in property list.
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "Kernel_Data.h"
#include "TremorDistiller_Parameters.h"
#include "TremorDistiller_PiPL.h"

namespace {

TEST(ParamTable, ElevenRowsWithUniqueIdsInHostOrder) {
  const ParamTableRows& table = ParamTable();
  ASSERT_EQ(table.size(), 11u);
  std::set<int32_t> ids;
  for (const ParamRecord& row : table) EXPECT_TRUE(ids.insert(row.diskId).second) << "duplicate id " << row.diskId;

  // Projects store values by these ids; the order is the host's index.
  const std::vector<int32_t> expected = {0, 1, 5, 6, 12, 19, 20, 22, 21, 24, 23};
  for (size_t i = 0; i < table.size(); ++i) EXPECT_EQ(table[i].diskId, expected[i]) << "row " << i;
  EXPECT_EQ(table[0].kind, ParamKind::InputLayer);
  EXPECT_EQ(table[1].kind, ParamKind::CustomUI);
  EXPECT_EQ(&ParamTable(), &table);  // one table, not rebuilt per call
}

TEST(ParamTable, DefaultsSuitTheirKindAndLieInRange) {
  for (const ParamRecord& row : ParamTable()) {
    SCOPED_TRACE(row.name);
    EXPECT_LE(row.name.size(), 31u);  // the host keeps 31 characters
    switch (row.kind) {
      case ParamKind::FloatSlider: {
        const float v = std::get<float>(row.defaultValue);
        EXPECT_LE(*row.min, v);
        EXPECT_LE(v, *row.max);
        EXPECT_FALSE(row.value.has_value());
        break;
      }
      case ParamKind::Popup: {
        const int v = std::get<int32_t>(row.defaultValue);
        const A_short count = CountPopupChoices(std::get<std::string>(*row.value));
        EXPECT_GE(v, 1);  // After Effects counts from 1
        EXPECT_LE(v, count);
        break;
      }
      case ParamKind::Checkbox:
        EXPECT_TRUE(std::holds_alternative<bool>(row.defaultValue));
        EXPECT_FALSE(row.value.has_value());
        break;
      default:
        break;
    }
    EXPECT_EQ(row.flags.value_or(0), 0);  // no row asks to hear of changes
  }
  // A stack holds at least two frame pairs and never outgrows KernelData's origins.
  const ParamRecord& frames = ParamTable()[FindParamIndex(PARAM_FRAMES, ParamTable())];
  EXPECT_GE(*frames.min, 3.0f);
  EXPECT_LE(*frames.max, static_cast<float>(KERNEL_DATA_MAX_FRAMES));
}

TEST(ParamTable, ChoiceCountsAreBarSeparatedWords) {
  const ParamTableRows& t = ParamTable();
  std::vector<A_short> counts;
  for (const ParamRecord& row : t)
    if (row.kind == ParamKind::Popup) counts.push_back(CountPopupChoices(std::get<std::string>(*row.value)));
  EXPECT_EQ(counts, (std::vector<A_short>{2, 2, 3}));
  EXPECT_EQ(CountPopupChoices("Only"), 1);
  EXPECT_EQ(CountPopupChoices(""), 0);
}

TEST(FindParamIndex, FindsRowsAndRefusesUnknownIds) {
  const ParamTableRows& t = ParamTable();
  EXPECT_EQ(FindParamIndex(23, t), 10);
  EXPECT_EQ(FindParamIndex(PARAM_INPUT, t), 0);
  EXPECT_EQ(FindParamIndex(PARAM_MOTION_AMPLIFICATION, t), 7);
  for (int32_t missing : {2, 25, -1}) {
    try {
      FindParamIndex(missing, t);
      ADD_FAILURE() << missing << " found";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Parameter with given Disk ID not found");
    }
  }
  const ParamTableRows twice = {ParamRecord{7, ParamKind::Checkbox}, ParamRecord{7, ParamKind::Popup}};
  EXPECT_EQ(FindParamIndex(7, twice), 0);  // the first match wins
}

TEST(WorkingValues, BothHostsLandOnTheSameKernelValues) {
  // Premiere counts popups from 0, After Effects from 1.
  EXPECT_EQ(static_cast<BlendMode>(PopupFromPremiere(0)), BLEND_ADD);
  EXPECT_EQ(static_cast<DiffBlendMode>(PopupFromPremiere(1)), DIFF_SUBT);
  EXPECT_EQ(static_cast<ColorFrom>(PopupFromPremiere(2)), FROM_LUMA);
  EXPECT_EQ(static_cast<BlendMode>(PopupFromAE(1)), BLEND_ADD);
  EXPECT_EQ(static_cast<ColorFrom>(PopupFromAE(3)), FROM_LUMA);

  EXPECT_EQ(PercentEaseFromFade(80.0), 4.0f);
  EXPECT_EQ(PercentEaseFromFade(100.0), 5.0f);
  EXPECT_EQ(PercentEaseFromFade(0.0), 0.0f);
  EXPECT_EQ(PercentEaseFromFade(33.0), static_cast<float>(33.0 / 20.0));

  EXPECT_EQ(WholeFrames(10.9), 10);
  EXPECT_EQ(WholeFrames(-2.7), -2);  // toward zero, not down

  EXPECT_FALSE(CheckboxOn(0));
  EXPECT_TRUE(CheckboxOn(1));
  EXPECT_TRUE(CheckboxOn(255));
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
  ASSERT_EQ(expected.size(), 294u);
  const std::vector<uint8_t> pipl = BuildPiPL();
  ASSERT_EQ(pipl.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(pipl[i], expected[i]) << "byte " << i;
}

}  // namespace
