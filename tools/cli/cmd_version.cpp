// oxel --version: the version and the library's build record.
#include "common.h"

#include <cstdio>

namespace oxcli {

// The build record is "|key|value|key|value..."; the version comes from there too.
int showVersion()
{
    const char* record = orvexpackage_oxel();
    std::vector<std::string> fields = splitFields(record ? record : "", '|');
    std::string major, minor, patch, tag;
    for (size_t i = 1; i + 1 < fields.size(); i += 2) {
        if (fields[i] == "version_major")
            major = fields[i + 1];
        else if (fields[i] == "version_minor")
            minor = fields[i + 1];
        else if (fields[i] == "version_patch")
            patch = fields[i + 1];
        else if (fields[i] == "version_tag")
            tag = fields[i + 1];
    }
    std::printf("oxel %s.%s.%s%s%s\n", major.c_str(), minor.c_str(), patch.c_str(),
                tag.empty() ? "" : " ", tag.c_str());
    std::printf("build record:\n");
    for (size_t i = 1; i + 1 < fields.size(); i += 2)
        std::printf("  %-14s %s\n", (fields[i] + ":").c_str(), fields[i + 1].c_str());
    return kOk;
}

}  // namespace oxcli
