// SPDX-License-Identifier: MIT
// The tree walks, called in this process, against the usual tools on the same warm tree, by turns.
//
// Usage: treewalk_operations TREE [rounds]; make_tree makes the tree, and all of it is given mode
// 0755 here.
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "treewalk/tree_walk_operations.hpp"

namespace {

using namespace corvalen;

constexpr int kDaysOfHits = 300;
constexpr int kAllModeBits = 0x0E;
constexpr int kGroup = 0x10;

/// Counts the finds, as a client would at least do.
class Finds : public FeedbackConnection {
  public:
    void processPrivilegedOperationFeedback(Dictionary feedback) override {
        if (const Value* records = feedback.find(kQRLPORK_FileObjectInfo))
            count += records->array()->size();
    }
    std::size_t count = 0;
};

struct Comparison {
    const char* operation;
    Array arguments;
    /// Shell commands that do the same; %T stands for the tree.
    std::vector<std::string> tools;
};

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double timeOperation(TreeWalkOperations& group, const Comparison& comparison, Finds* finds) {
    MethodTable table;
    group.registerMethods(table);
    const std::string selector =
        std::string("performOperation").append(comparison.operation).append("WithArguments:");
    const auto start = std::chrono::steady_clock::now();
    ErrorRef result;
    if (const OperationMethod* plain = table.find(selector)) {
        result = std::get<PlainOperationMethod>(*plain)(comparison.arguments);
    } else {
        const OperationMethod* method = table.find(selector + "feedbackConnection:");
        result = std::get<FeedbackOperationMethod>(*method)(comparison.arguments, finds);
    }
    const double seconds = secondsSince(start);
    if (result && result->code() != 0) {
        std::fprintf(stderr, "%s: %s\n", selector.c_str(), result->localizedDescription().c_str());
        std::exit(1);
    }
    return seconds;
}

double timeTool(std::string command, const std::string& tree) {
    command.replace(command.find("%T"), 2, "'" + tree + "'");
    command.append(" >/dev/null");
    const auto start = std::chrono::steady_clock::now();
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "failed: %s\n", command.c_str());
        std::exit(1);
    }
    return secondsSince(start);
}

void compare(TreeWalkOperations& group, const Comparison& comparison, const std::string& tree,
             int rounds) {
    std::vector<double> own;
    std::vector<std::vector<double>> ratios(comparison.tools.size());
    Finds finds;
    for (int round = 0; round <= rounds; ++round) {
        finds.count = 0;
        const double seconds = timeOperation(group, comparison, &finds);
        if (round > 0) own.push_back(seconds);
        for (std::size_t tool = 0; tool < ratios.size(); ++tool) {
            const double beside = timeTool(comparison.tools[tool], tree);
            // The first round warms the tree.
            if (round > 0) ratios[tool].push_back(seconds / beside);
        }
    }
    std::printf("%s: %.1f ms, %zu found\n", comparison.operation, median(own) * 1000, finds.count);
    for (std::size_t tool = 0; tool < ratios.size(); ++tool)
        std::printf("    %.2f of %s\n", median(ratios[tool]), comparison.tools[tool].c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fputs("usage: treewalk_operations TREE [rounds]\n", stderr);
        return 2;
    }
    const std::string tree = argv[1];
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
    const auto users = makeUserDatabase();
    const auto acl = makeExtendedAcl();
    TreeWalkOperations group(*users, *acl);
    const Comparison comparisons[] = {
        {"SearchPatterns",
         {tree, "0", "2", "hit"},
         {"find %T -name '*.hit' -printf '%p\\n'", "bfs %T -name '*.hit' -printf '%p\\n'",
          "fdfind -u -e hit . %T"}},
        {"SearchPatterns", {tree, "1", "2", "hit"}, {"find %T -xdev -name '*.hit' -print"}},
        {"SearchPatterns",
         {tree, "0", "1", "1", "2", "txt", "2", "hit", "0", "x"},
         {"find %T -name '1*' -o -name '*.txt' -o -name '*.hit' -o -name x"}},
        {"SearchAgedfiles",
         {tree, kDaysOfHits, 0},
         {"find %T -mtime +299 -printf '%p %s %T@ %m %y\\n'"}},
        {"SearchAgedfiles", {tree, 0, 0}, {"find %T -mtime -99999 -printf '%p %s %T@ %m %y\\n'"}},
        {"SearchFileorphans", {tree, 0}, {"find %T -nouser -printf '%p %s %T@ %m %y\\n'"}},
        {"InspectStoragesize", {tree}, {"du -sb --count-links %T"}},
        {"PropPermissions", {tree, 0, 0, kAllModeBits}, {"chmod -R 0755 %T"}},
        {"PropPermissions", {tree, 0, 0, kGroup}, {"chown -R :0 %T"}},
    };
    for (const Comparison& comparison : comparisons)
        compare(group, comparison, tree, rounds);
    return 0;
}
