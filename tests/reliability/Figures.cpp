#include "Figures.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace tavrel::test {

namespace {

void printFigures(const std::string& test, const Figures& figures, const std::string& tail) {
    std::string line = "[ figures ] " + test;
    for (const auto& [name, value] : figures) {
        line += " " + name + "=" + std::to_string(value);
        testing::Test::RecordProperty(name, std::to_string(value));
    }
    line += " " + tail;
    testing::Test::RecordProperty("budget", tail);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

void reportFigures(const std::string& test, const Figures& figures, const RunBudget& budget) {
    printFigures(test, figures, budget.describe());
}

void reportFigures(const std::string& test, const Figures& figures) {
    printFigures(test, figures, std::string("build=") + buildKind().name);
}

}  // namespace tavrel::test
