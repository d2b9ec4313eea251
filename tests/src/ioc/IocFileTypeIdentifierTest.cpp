#include "ioc/FileTypeIdentifier.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include "common/Logging.h"
#include "edr/LibMagicWrapper.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using vantor::ioc::internal::FileTypeIdentifier;

namespace
{

const std::string kMagicDatabase = "/usr/share/misc/magic.mgc";

} // namespace

TEST(IocFileTypeIdentifierTest, RealFilesAreTypedByTheirMagicDescription)
{
    vantor::test::TempDir dir;
    const FileTypeIdentifier types(std::make_shared<const vantor::edr::LibMagicWrapper>(kMagicDatabase));
    const std::vector<std::pair<std::string, std::string>> cases{
        {"X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*", "EICAR"},
        {"#!/usr/bin/perl\nprint 1;\n", "Perl"},
        {"#!/usr/bin/python3\nprint(1)\n", "Python"},
        {"#!/usr/bin/ruby\nputs 1\n", "Ruby"},
        {"<?php echo 1; ?>\n", "PHP"},
        {"#!/bin/sh\necho 1\n", "Script"},
        {"<!DOCTYPE html>\n<html><body>x</body></html>\n", "HTML"},
        {std::string("\xff\xd8\xff\xe0\x00\x10JFIF\x00\x01\x01\x00\x00\x01\x00\x01\x00\x00", 20), "JPEG"},
        {"just some words\n", "regularfile"},
    };
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    for (size_t i = 0; i < cases.size(); ++i)
    {
        SCOPED_TRACE(cases[i].second);
        const std::string path = dir.Write("file" + std::to_string(i), cases[i].first);
        EXPECT_EQ(types.Identify(path, S_IFREG), cases[i].second);
    }
    EXPECT_TRUE(log.Contains("Matched Type: Perl"));
    EXPECT_TRUE(log.Contains("FileTypeIdentifier: Failed to match: ASCII text"));
    // Only regular files are described; a file that is gone keeps its kind.
    EXPECT_EQ(types.Identify(dir.File("file1"), S_IFLNK), "symbolicLink");
    EXPECT_EQ(types.Identify(dir.File("gone"), S_IFREG), "regularfile");
}

TEST(IocFileTypeIdentifierTest, KindsAndDescriptionsWithoutAMagicDatabase)
{
    const FileTypeIdentifier types(nullptr);
    EXPECT_EQ(FileTypeIdentifier::KindText(S_IFREG), std::string("regularfile"));
    EXPECT_EQ(FileTypeIdentifier::KindText(S_IFLNK), std::string("symbolicLink"));
    EXPECT_EQ(FileTypeIdentifier::KindText(S_IFBLK), std::string("blockdevicefile"));
    EXPECT_EQ(FileTypeIdentifier::KindText(S_IFCHR), std::string("characterdevicefile"));
    EXPECT_EQ(FileTypeIdentifier::KindText(S_IFDIR), std::string("unknown"));
    // Without a magic database a regular file is only a regular file.
    EXPECT_EQ(types.Identify("/etc/passwd", S_IFREG), "regularfile");

    // The more specific description wins where a general pattern matches too.
    EXPECT_EQ(types.Classify("XHTML document, ASCII text"), "XHTML");
    EXPECT_EQ(types.Classify("POSIX shell script text executable"), "Script");
    EXPECT_EQ(types.Classify("Python script text executable"), "Python");
    EXPECT_EQ(types.Classify("SQLite 3.x database, last written using SQLite version 3040001"), "SQLite");

    // Patterns that do not compile leave every file unmatched.
    vantor::test::LogCapture log(vantor::common::Logging::Edr());
    const FileTypeIdentifier broken(nullptr, {{"Perl script", "Perl"}, {"(unclosed", "Broken"}});
    EXPECT_TRUE(log.Contains("FileTypeIdentifier: Failed to compile patterns: "));
    EXPECT_EQ(broken.Classify("Perl script text executable"), "regularfile");
}

TEST(IocFileTypeIdentifierTest, AVersionOfAPathIsDescribedOnce)
{
    vantor::test::TempDir dir;
    const FileTypeIdentifier types(std::make_shared<const vantor::edr::LibMagicWrapper>(kMagicDatabase));
    const FileTypeIdentifier::Version first{100, 100, 25};
    const std::string path = dir.Write("script", "#!/usr/bin/perl\nprint 1;\n");
    EXPECT_EQ(types.Identify(path, S_IFREG, first), "Perl");
    // The same version is not read again; another version or none is.
    struct Case
    {
        const char* content;
        FileTypeIdentifier::Version version;
        const char* type;
    };
    const std::vector<Case> cases{
        {"#!/usr/bin/ruby\nputs 1\n", first, "Perl"},
        {"#!/usr/bin/ruby\nputs 1\n", {200, 200, 25}, "Ruby"},
        // Replaced by a file of the same size and modification time.
        {"<?php echo 1; ?>\n", {200, 300, 25}, "PHP"},
        {"#!/usr/bin/python3\nprint(1)\n", {200, 300, 26}, "Python"},
    };
    for (const auto& c : cases)
    {
        dir.Write("script", c.content);
        EXPECT_EQ(types.Identify(path, S_IFREG, c.version), c.type);
    }
    dir.Write("script", "#!/bin/sh\necho 1\n");
    EXPECT_EQ(types.Identify(path, S_IFREG), "Script");
    // A file that is gone or cannot be read is not remembered as untyped.
    const std::string late = dir.File("late");
    EXPECT_EQ(types.Identify(late, S_IFREG, first), "regularfile");
    dir.Write("late", "#!/usr/bin/perl\nprint 1;\n");
    EXPECT_EQ(types.Identify(late, S_IFREG, first), "Perl");
}
