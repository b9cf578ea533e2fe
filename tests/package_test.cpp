// The Debian package of the tool, as cpack made it for this build.
#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

using Lines = std::vector<std::string>;

const char kPackage[] = "/tmp/small-update.deb";

std::unique_ptr<sandbox::Sandbox> PackageSandbox()
{
    auto sb = testutil::MakeSandbox();
    sb->CopyIn(VYRA_PACKAGE_FILE, kPackage, 0644);
    return sb;
}

TEST(Package, ControlFileAndContentsAreClean)
{
    REQUIRE_SANDBOX();
    auto sb = PackageSandbox();

    const auto fields = testutil::SplitLines(sb->Run({"/usr/bin/dpkg-deb", "--field", kPackage}).out);
    const auto field = [&fields](const std::string &strName) {
        for (const std::string &strLine : fields) {
            if (strLine.rfind(strName + ": ", 0) == 0)
                return strLine.substr(strName.size() + 2);
        }
        return std::string("<missing>");
    };
    EXPECT_EQ(field("Package"), "small-update");
    EXPECT_EQ(field("Version"), VYRA_PACKAGE_VERSION);
    EXPECT_EQ(field("Architecture"), VYRA_DEB_ARCHITECTURE);
    EXPECT_EQ(field("Section"), "admin");
    EXPECT_EQ(field("Priority"), "optional");
    EXPECT_NE(field("Maintainer").find('@'), std::string::npos);
    EXPECT_NE(field("Description"), "<missing>");
    EXPECT_EQ(field("Depends").rfind("libc6 (>= 2.", 0), 0u) << field("Depends");
    EXPECT_EQ(field("Depends").find("libstdc++") == std::string::npos, VYRA_STATIC_CXX_RUNTIME)
        << field("Depends");

    Lines paths;
    std::istringstream contents(sb->Run({"/usr/bin/dpkg-deb", "--contents", kPackage}).out);
    for (std::string strLine; std::getline(contents, strLine);)
        paths.push_back(strLine.substr(strLine.rfind(' ') + 1));
    std::sort(paths.begin(), paths.end());
    EXPECT_EQ(paths, (Lines{"./usr/", "./usr/sbin/", "./usr/sbin/small_update", "./usr/share/",
                            "./usr/share/man/", "./usr/share/man/man8/",
                            "./usr/share/man/man8/small_update.8.gz"}));
}

TEST(Package, InstallsRunsAndShowsItsManualPage)
{
    REQUIRE_SANDBOX();
    auto sb = PackageSandbox();
    const std::string strHostArchitecture = sb->Run({"/usr/bin/dpkg", "--print-architecture"}).out;

    // A package for another architecture is unpacked only: its C library is
    // not installed here.
    const auto installed =
        strHostArchitecture == std::string(VYRA_DEB_ARCHITECTURE) + "\n"
            ? sb->Run({"/usr/bin/dpkg", "-i", kPackage})
            : sb->Run({"/usr/bin/dpkg-deb", "-x", kPackage, "/"});
    ASSERT_EQ(installed.ExitCode(), 0) << installed.err;

    auto command = testutil::ToolCommand();
    command.back() = "/usr/sbin/small_update";
    const auto run = sb->Run(command);
    EXPECT_EQ(run.ExitCode(), 255) << "nothing to update: " << run.err;

    auto env = sandbox::Sandbox::DefaultEnv();
    env.push_back("MANWIDTH=80");
    const auto man = sb->Run(
        {"/usr/bin/man", "--warnings", "-l", "/usr/share/man/man8/small_update.8.gz"}, env);
    EXPECT_EQ(man.ExitCode(), 0);
    EXPECT_EQ(man.err, "");
    for (const char *szPart : {"SMALL_UPDATE(8)", "PACKAGE NAMES", "DIAGNOSTICS", "EXIT STATUS",
                               "SECURITY", "0x11B01030", "update:small_update_install_failed"})
        EXPECT_NE(man.out.find(szPart), std::string::npos) << szPart;
}

}  // namespace
