#include "tests/image/blueprint.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace quil::tests {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(Blueprint, ModulesHaveTheirStringsListsAndMaps) {
    const auto modules = readBlueprint(R"(
        // a comment
        first {
            name: "one", /* another */
            srcs: ["a.cpp", "b/*.cpp"],
            vendor: true,
            inner: { word: "deep" },
        }
        second {}
    )");
    ASSERT_EQ(modules.size(), 2U);
    EXPECT_EQ(modules[0].type, "first");
    EXPECT_EQ(modules[0].word("name"), "one");
    EXPECT_THAT(modules[0].words("srcs"), ElementsAre("a.cpp", "b/*.cpp"));
    EXPECT_EQ(modules[0].word("vendor"), "true");
    EXPECT_THAT(modules[0].properties.at("inner").properties.at("word").words, ElementsAre("deep"));
    EXPECT_EQ(modules[1].type, "second");
    EXPECT_THAT(modules[1].words("srcs"), IsEmpty());
}

TEST(Blueprint, WhatItCannotReadIsRefusedWithItsLine) {
    for (const char* text :
         {"first {\n name: other }", "first {\n srcs: [\"a\" \"b\"] }", "first {\n name: \"a }",
          "first {\n a: true, a: true }", "flags =\n [\"-Wall\"]", "first {\n srcs: [] + [] }",
          "first {\n name: \"\\\"\" }", "first\n", "/*\n"}) {
        try {
            readBlueprint(text);
            ADD_FAILURE() << text;
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), HasSubstr("line ")) << text;
        }
    }
    EXPECT_THROW(
        try { readBlueprint("a {}\nb {\n  c\n}"); } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), HasSubstr("line 4"));
            throw;
        },
        std::runtime_error);
}

TEST(Blueprint, DefaultsStandInFrontOfAModulesOwnListsAndFillWhatItLeavesOut) {
    const auto all = readBlueprint(R"(
        cc_defaults { name: "common", cflags: ["-Wall"], cpp_std: "c++17", stem: "theirs" }
        cc_binary { name: "own", defaults: ["common"], cflags: ["-O2"], stem: "mine" }
        cc_binary { name: "lost", defaults: ["nobody"] }
    )");
    const BlueprintModule whole = withDefaults(all[1], all);
    EXPECT_EQ(whole.word("name"), "own");
    EXPECT_THAT(whole.words("cflags"), ElementsAre("-Wall", "-O2"));
    EXPECT_EQ(whole.word("cpp_std"), "c++17");
    EXPECT_EQ(whole.word("stem"), "mine");
    EXPECT_THROW(withDefaults(all[2], all), std::runtime_error);
}

}  // namespace quil::tests
