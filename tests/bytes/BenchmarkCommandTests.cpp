#include "support/ProcessRunner.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

namespace brim {
namespace {

/// The figures of the output: "name: value unit" per line, by name.
std::map<std::string, std::string> figures(const std::string& out) {
    std::map<std::string, std::string> found;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        const auto colon = line.find(": ");
        if (colon == std::string::npos) {
            ADD_FAILURE() << "not a figure: " << line;
            continue;
        }
        found[line.substr(0, colon)] = line.substr(colon + 2);
    }
    return found;
}

TEST(BenchmarkCommand, printsOneFigurePerLine) {
    testing::TemporaryFolder folder;
    std::string text;
    for (int i = 0; i < 60'000; ++i)
        text += "entry " + std::to_string(i) + " of a log that is read\n";
    ASSERT_GT(text.size(), 1'048'576u);  // mapped, like a large document
    for (const auto& [name, contents, lines] :
         {std::tuple{"large.log", text, std::string("60001")},
          std::tuple{"small.txt", std::string("a\nb"), std::string("2")},
          std::tuple{"empty.txt", std::string(), std::string("1")}}) {
        SCOPED_TRACE(name);
        const auto result = testing::runBrim({"--benchmark", folder.write(name, contents).string()});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        const auto found = figures(result.out);
        ASSERT_EQ(found.count("open"), 1u) << result.out;
        EXPECT_TRUE(found.at("open").ends_with(" s"));
        EXPECT_TRUE(found.at("index").ends_with(" s"));
        EXPECT_TRUE(found.at("index-rate").ends_with(" GB/s"));
        EXPECT_EQ(found.at("lines"), lines);
        EXPECT_TRUE(found.at("peak-rss").ends_with(" MB"));
        EXPECT_GT(std::stod(found.at("peak-rss")), 0.0);
    }
}

TEST(BenchmarkCommand, aMissingFileIsNoAnswer) {
    testing::TemporaryFolder folder;
    const auto missing = (folder / "nowhere.txt").string();
    const auto result = testing::runBrim({"--benchmark", missing});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "brim: cannot read " + missing + "\n");
    EXPECT_EQ(testing::runBrim({"--benchmark", folder.path().string()}).status, 1);
}

}  // namespace
}  // namespace brim
