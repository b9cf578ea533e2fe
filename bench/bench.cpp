// The benchmark: what small_update's own work costs per package, against the
// floor that the tool's duties make unavoidable and against a shell script
// doing the same job; and, with --real, the tool with the real dpkg against
// dpkg -i of the same packages one by one. It runs inside vyra-sandbox.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "sandbox.h"

namespace {

const char kDir[] = "/smallupd@te/";

struct Sample {
    double dWall = 0;  // seconds
    long cKiB = 0;     // peak resident set
};

struct Program {
    const char *szName;
    std::vector<std::string> argv;  // inside the sandbox
};

namespace fs = std::filesystem;

// Runs argv through the measuring wrapper.
Sample Measure(const std::vector<std::string> &argv)
{
    std::vector<std::string> command = {VYRA_BENCH_MEASURE};
    command.insert(command.end(), argv.begin(), argv.end());
    const sandbox::Result res = sandbox::Run(command);
    Sample sample;
    int nStatus = -1;
    if (sscanf(res.out.c_str(), "%lf %ld %d", &sample.dWall, &sample.cKiB, &nStatus) != 3) {
        fprintf(stderr, "bench: %s did not run: %s\n", argv[0].c_str(), res.out.c_str());
        for (const std::string &strMessage : res.log)
            fprintf(stderr, "%s\n", strMessage.c_str());
        exit(1);
    }
    return sample;
}

Sample Median(std::vector<Sample> samples)
{
    std::sort(samples.begin(), samples.end(),
              [](const Sample &a, const Sample &b) { return a.dWall < b.dWall; });
    Sample median = samples[samples.size() / 2];
    for (const Sample &sample : samples)
        median.cKiB = std::max(median.cKiB, sample.cKiB);
    return median;
}

// A machine of build 2668 with nothing to update yet. The tool reads VERSION
// for every comparison, so the file sits on a tmpfs: on the sandbox's overlay
// each open would also pay the overlay's path lookup (about 2.4 us here), a
// cost of the sandbox that the appliance does not have. The logs lie on this
// machine's disk (build/bench-log, bound over /var/log), where syncing them
// costs what it costs on a disk; the sandbox's own /var/log is in memory.
void Machine()
{
    static const bool blMounted = [] {
        const std::string strLogs = fs::current_path() / "build/bench-log";
        fs::create_directories("/etc.defaults");
        fs::create_directories(strLogs);
        return mount("tmpfs", "/etc.defaults", "tmpfs", 0, "size=64k") == 0 &&
               mount(strLogs.c_str(), "/var/log", nullptr, MS_BIND, nullptr) == 0;
    }();
    if (!blMounted) {
        perror("bench: /etc.defaults or /var/log");
        exit(1);
    }
    sandbox::Machine(true);
}

long StrippedSize(const std::string &strStrip, const std::string &strBinary)
{
    const std::string strCopy = "/tmp/vyra-bench-stripped." + std::to_string(getpid());
    const std::string strCommand = strStrip + " -o " + strCopy + " " + strBinary + " 2>/dev/null";
    struct stat st;
    const long cb =
        system(strCommand.c_str()) == 0 && stat(strCopy.c_str(), &st) == 0 ? st.st_size : -1;
    unlink(strCopy.c_str());
    return cb;
}

void Overhead(int cRuns, const std::vector<int> &sizes)
{
    const std::vector<Program> programs = {{"small_update", {VYRA_TOOL}},
                                           {"floor", {VYRA_BENCH_FLOOR}},
                                           {"shell script", {"/bin/sh", VYRA_BENCH_SCRIPT}}};
    std::map<std::string, std::map<int, Sample>> medians;
    std::mt19937 random(2668);  // the same names on every run of the benchmark

    printf("Each figure is the median of %d runs; dpkg is a static program that does nothing.\n\n",
           cRuns);
    printf("%9s  %-13s %10s %14s %10s\n", "packages", "program", "wall (s)", "per package",
           "peak RSS");
    for (const int cPackages : sizes) {
        Machine();
        fs::copy_file(VYRA_BENCH_NOOP, "/usr/bin/dpkg", fs::copy_options::overwrite_existing);
        for (int i = 0; i < cPackages; ++i) {
            char szName[64];
            snprintf(szName, sizeof(szName), "pkg%05d_1.0-2668-s%u_all.deb", i,
                     static_cast<unsigned>(random() % 100000));
            sandbox::WriteFile(std::string(kDir) + szName, "");
        }
        std::map<std::string, std::vector<Sample>> samples;
        for (int nRun = 0; nRun < cRuns; ++nRun) {
            for (const Program &program : programs)
                samples[program.szName].push_back(Measure(program.argv));
        }
        for (const Program &program : programs) {
            const Sample median = Median(samples[program.szName]);
            medians[program.szName][cPackages] = median;
            const Sample &none = medians[program.szName][0];
            char szPer[32] = "-";
            if (cPackages > 0)
                snprintf(szPer, sizeof(szPer), "%.3f ms",
                         (median.dWall - none.dWall) / cPackages * 1e3);
            printf("%9d  %-13s %10.3f %14s %7.1f MiB\n", cPackages, program.szName, median.dWall,
                   szPer, median.cKiB / 1024.0);
        }
        fflush(stdout);
    }

    printf("\nPer package, less a run that finds nothing:\n");
    printf("%9s %12s %12s\n", "packages", "tool/floor", "shell/tool");
    for (const int cPackages : sizes) {
        if (cPackages == 0)
            continue;
        const auto per = [&](const char *szName) {
            return medians[szName][cPackages].dWall - medians[szName][0].dWall;
        };
        printf("%9d %11.2fx %11.2fx\n", cPackages, per("small_update") / per("floor"),
               per("shell script") / per("small_update"));
    }
}

void RealDpkg(int cRuns)
{
    const int cPackages = 20;
    Machine();
    for (int i = 0; i < cPackages; ++i) {
        const std::string strPackage = "vyra-bench-" + std::to_string(i);
        const std::string strName =
            strPackage + "_1.0-2668-s" + std::to_string(cPackages - i) + "_all.deb";
        if (!sandbox::BuildDeb({strPackage}, "/bench-packages/" + strName)) {
            fprintf(stderr, "bench: dpkg-deb could not build %s\n", strName.c_str());
            exit(1);
        }
    }
    // Every run starts from this machine's package database as it was.
    fs::copy("/var/lib/dpkg", "/bench-dpkg", fs::copy_options::recursive);
    const std::vector<Program> programs = {
        {"small_update", {VYRA_TOOL}},
        {"dpkg -i each",
         {"/bin/sh", "-c", "for f in /smallupd@te/*.deb; do dpkg -i \"$f\"; done"}}};
    printf("%d tiny real packages, the real dpkg; each figure is the median of %d runs, each\n"
           "on a fresh copy of this machine's package database.\n\n",
           cPackages, cRuns);
    printf("%-14s %10s %14s %10s\n", "program", "wall (s)", "per package", "peak RSS");
    std::map<std::string, Sample> medians;
    for (const Program &program : programs) {
        std::vector<Sample> samples;
        for (int nRun = 0; nRun < cRuns; ++nRun) {
            Machine();
            fs::remove_all("/var/lib/dpkg");
            fs::copy("/bench-dpkg", "/var/lib/dpkg", fs::copy_options::recursive);
            fs::copy("/bench-packages", "/smallupd@te", fs::copy_options::recursive);
            samples.push_back(Measure(program.argv));
        }
        medians[program.szName] = Median(samples);
        printf("%-14s %10.3f %11.1f ms %7.1f MiB\n", program.szName, medians[program.szName].dWall,
               medians[program.szName].dWall / cPackages * 1e3,
               medians[program.szName].cKiB / 1024.0);
    }
    printf("\nsmall_update / dpkg -i each: %.2fx\n",
           medians["small_update"].dWall / medians["dpkg -i each"].dWall);
}

}  // namespace

int main(int argc, char *argv[])
{
    bool blReal = false;
    int cRuns = 5;
    std::vector<int> sizes = {0, 100, 1000, 10000};
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--real") == 0) {
            blReal = true;
        } else if (strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
            cRuns = std::max(1, atoi(argv[++i]));
        } else if (strcmp(argv[i], "--largest") == 0 && i + 1 < argc) {
            const int cLargest = atoi(argv[++i]);
            sizes.erase(std::remove_if(sizes.begin(), sizes.end(),
                                       [cLargest](int c) { return c > cLargest; }),
                        sizes.end());
        } else {
            fprintf(stderr, "usage: %s [--real] [--runs N] [--largest PACKAGES]\n", argv[0]);
            return 2;
        }
    }
    if (!sandbox::Inside()) {
        fprintf(stderr, "bench: it changes the system paths: run it through bench/run.sh\n");
        return 1;
    }
    if (blReal)
        RealDpkg(cRuns);
    else
        Overhead(cRuns, sizes);

    printf("\nStripped program sizes: host %ld bytes", StrippedSize("strip", VYRA_TOOL));
    const long cbTarget = StrippedSize("powerpc-linux-gnu-strip", VYRA_TARGET_TOOL);
    if (cbTarget >= 0)
        printf(", powerpc %ld bytes", cbTarget);
    else
        printf(", powerpc not built (%s)", VYRA_TARGET_TOOL);
    printf("\n");
    return 0;
}
