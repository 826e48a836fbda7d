// SPDX-License-Identifier: MIT
#include "fileops/file_object_info.hpp"
#include "fileops/operations_fixture.hpp"

namespace corvalen {
namespace {

using namespace std::string_literals;

class SimpleOperations : public testing::OperationsTest {};

TEST_F(SimpleOperations, RefuseWhatTheyCannotDo) {
    const std::string present = file("present");
    link("to-present", present);
    const struct {
        const char* selector;
        Array arguments;
        std::string result;
    } cases[] = {
        {"CreateFileobject", {"", "F"}, "posix 22"},
        {"CreateFileobject", {at("new"), "FD"}, "posix 22"},
        {"CreateFileobject", {at("new\0x"s), "F"}, "posix 22"},
        {"CreateFileobject", {present, "F"}, "posix 17"},
        {"CreateFileobject", {at("to-present"), "D"}, "posix 17"},
        {"CreateFileobject", {at("missing/new"), "D"}, "cocoa 4 <posix 2> new"},
        {"CreateFileobject", {at("missing/new"), "X"}, "own 4 new"},
        {"RenameFileobject", {"", at("new")}, "cocoa 4 <posix 2> "},
        {"RenameFileobject", {present, at("missing/new")}, "cocoa 4 <posix 2> new"},
        {"RenameFileobject", {_top, at("new")}, "cocoa 512 <posix 22> " + _top.substr(5)},
        {"RenameFileobject", {present, at("to-present")}, "cocoa 516 <posix 17> to-present"},
        {"InspectFileobject", {"\0"s}, "posix 22"},
        {"TouchFileobject", {at("missing")}, "posix 2"},
        {"CreateLink", {at("new"), at("missing"), true}, "cocoa 4 <posix 2> missing"},
        {"CreateLink", {at("new"), "a\0b"s, false}, "posix 22"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(call(one.selector, one.arguments), one.result) << one.selector;
    EXPECT_FALSE(exists(at("new")));
    EXPECT_FALSE(exists(at("missing")));
}

TEST_F(SimpleOperations, CreateGivesExactPermissionsAndRestoresTheMask) {
    ::umask(027);
    const struct {
        const char* code;
        unsigned mode;
    } cases[] = {{"F", S_IFREG | 0644U}, {"X", S_IFREG | 0755U}, {"D", S_IFDIR | 0755U}};
    for (const auto& one : cases) {
        EXPECT_EQ(call("CreateFileobject", {at(one.code), one.code}), "none");
        EXPECT_EQ(statusOf(at(one.code)).st_mode, one.mode);
    }
    EXPECT_EQ(::umask(022), 027U);
}

TEST_F(SimpleOperations, InspectFollowsLinks) {
    folder("folder");
    const std::pair<std::string, int> cases[] = {{at("folder"), 1},
                                                 {link("to-folder", "folder"), 1},
                                                 {file("\xff file"), 2},
                                                 {link("dangling", "missing"), 0},
                                                 {link("loop", "loop"), 0}};
    for (const auto& [path, existence] : cases) {
        const ErrorRef answer = operations.performOperationInspectFileobjectWithArguments({path});
        EXPECT_EQ(answer->code(), 0);
        EXPECT_EQ(*answer->userInfo(), (Dictionary{{"ObjectExistence", existence}})) << path;
    }
}

TEST_F(SimpleOperations, TouchFollowsAndHardLinksShare) {
    ASSERT_TRUE(inside("touch -d @5 target"));
    EXPECT_EQ(call("CreateLink", {at("symbolic"), "target", false}), "none");
    EXPECT_EQ(call("TouchFileobject", {at("symbolic")}), "none");
    EXPECT_EQ(call("CreateLink", {at("hard"), at("target"), true}), "none");
    EXPECT_GT(statusOf(at("hard")).st_mtim.tv_sec, 1000000);
}

TEST_F(SimpleOperations, ARecordDescribesTheObjectItself) {
    Array records;
    link("link", "12345");
    const std::string path = file("file", "1234");
    ASSERT_TRUE(inside("chmod 4711 file && touch -d @77.123456789 file"));
    for (const std::string& one : {at("link"), path, at("gone"), std::string()})
        addFileSystemObjectInfoDictionaryToArray(&records, one);
    addFileSystemObjectInfoDictionaryToArray(nullptr, path);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(*records[0].dictionary()->find("Type"), Value("NSFileTypeSymbolicLink"));
    EXPECT_EQ(records[1], Value(Dictionary{{"Path", path},
                                           {"Type", "NSFileTypeRegular"},
                                           {"Size", 4},
                                           {"ModificationDate", Date{77, 123456789}},
                                           {"Mode", 04711}}));
    EXPECT_EQ(FileOperations::fileSystemIDForPath(path),
              static_cast<std::uint32_t>(statusOf(path).st_dev));
    EXPECT_EQ(FileOperations::fileSystemIDForPath(at("gone")), 0xFFFFFFFFU);
}

}  // namespace
}  // namespace corvalen
