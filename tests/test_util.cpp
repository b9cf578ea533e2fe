#include "test_util.h"

#include <ctype.h>
#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace testutil {

std::string ReadFile(const std::string &strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteFile(const std::string &strPath, const std::string &strContent)
{
    std::ofstream(strPath, std::ios::binary) << strContent;
}

std::vector<std::string> SplitLines(const std::string &strText)
{
    std::vector<std::string> lines;
    std::istringstream in(strText);
    for (std::string strLine; std::getline(in, strLine);)
        lines.push_back(strLine);
    return lines;
}

std::vector<std::string> LogLines(const sandbox::Sandbox &sb, const std::string &strPath)
{
    // "YYYY/MM/DD hh:mm:ss\t"
    static const char kShape[] = "9999/99/99 99:99:99\t";
    const size_t cb = sizeof(kShape) - 1;
    std::vector<std::string> lines = SplitLines(sb.ReadFile(strPath).value_or(""));
    for (std::string &strLine : lines) {
        bool blStamped = strLine.size() >= cb;
        for (size_t i = 0; blStamped && i < cb; ++i)
            blStamped = kShape[i] == '9' ? isdigit(static_cast<unsigned char>(strLine[i])) != 0
                                         : strLine[i] == kShape[i];
        strLine = blStamped ? strLine.substr(cb) : "<no stamp>" + strLine;
    }
    return lines;
}

std::vector<std::string> LogTexts(const sandbox::Result &res)
{
    std::vector<std::string> texts;
    for (const sandbox::LogMessage &msg : res.log) {
        std::string strText = msg.text;
        const size_t posColon = strText.find(':');
        size_t pos = posColon + 1;
        while (posColon != std::string::npos && pos < strText.size() &&
               isdigit(static_cast<unsigned char>(strText[pos])))
            ++pos;
        if (posColon != std::string::npos && pos > posColon + 1)
            strText.erase(posColon + 1, pos - posColon - 1);
        if (msg.priority != (LOG_USER | LOG_ERR))
            strText = "<priority " + std::to_string(msg.priority) + "> " + strText;
        texts.push_back(strText);
    }
    return texts;
}

std::unique_ptr<sandbox::Sandbox> MakeSandbox()
{
    auto sb = std::make_unique<sandbox::Sandbox>();
    sb->EmptyDir("/var/log");
    sb->BindHostDir(VYRA_BUILD_DIR);
    return sb;
}

std::vector<std::string> ToolCommand(const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {VYRA_TOOL_COMMAND};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

}  // namespace testutil
