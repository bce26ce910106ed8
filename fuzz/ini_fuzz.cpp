// INI files: CIniFile reading a file made of the input, the look-ups the
// library makes on its configuration and login files, every section and
// value by index, and writing the object back out.
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/IniFile.h"
#include "fuzz/FuzzSupport.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orvex_fuzz::PrepareRun(argc, argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using orvex_fuzz::Touch;
    orvex_fuzz::WriteFile("input.ini", data, size);

    CIniFile ini("input.ini");
    ini.CaseInsensitive();
    unsigned sum = 0;

    // What the library asks of its configuration and login files.
    static const char* const kConfig[] = {"Log", "Subscribe", "DeltaQuot", "Level", "DomesticExchanges"};
    for (const char* name : kConfig) {
        sum += Touch(ini.GetValue("CONFIG", name, "dflt"));
        sum += static_cast<unsigned>(ini.GetValueI("CONFIG", name, 7));
        sum += ini.GetValueB("CONFIG", name, true) ? 1u : 0u;
    }
    sum += Touch(ini.GetValue("LoginInfo", "User", ""));
    sum += Touch(ini.GetValue("LoginInfo", "Password", ""));
    sum += Touch(ini.GetValue("MARKET", "SHFE", ""));
    sum += Touch(ini.GetValue("EXCHANGE", "2000", "2000"));
    sum += ini.GetValueB("BRCODE", "SHFE", false) ? 1u : 0u;
    sum += static_cast<unsigned>(ini.GetValueI("shfe", "lowtime", 0));
    sum += static_cast<unsigned>(ini.GetValueI("shfe", "hightime", 0));
    double f = ini.GetValueF("CONFIG", "Level", 0.5);
    orvex_fuzz::Keep(f);
    int a = 0;
    int b = 0;
    sum += static_cast<unsigned>(ini.GetValueV("CONFIG", "Level", "%d,%d", &a, &b));

    // Everything by index.
    for (unsigned k = 0; k < ini.NumKeys(); ++k) {
        const std::string key = ini.KeyName(k);
        sum += Touch(key);
        for (unsigned v = 0; v < ini.NumValues(k); ++v) {
            sum += Touch(ini.ValueName(k, v));
            sum += Touch(ini.GetValue(k, v, ""));
        }
        for (unsigned c = 0; c < ini.NumKeyComments(k); ++c) sum += Touch(ini.KeyComment(k, c));
        sum += ini.FindKey(key) <= k ? 1u : 0u;
    }
    for (unsigned c = 0; c < ini.NumHeaderComments(); ++c) sum += Touch(ini.HeaderComment(c));
    orvex_fuzz::Keep(sum);

    // Written back, the text is read again like any other file.
    ini.SetValueI("shfe", "lowtime", 100);
    ini.Path("output.ini");
    ini.WriteFile();
    CIniFile again("output.ini");
    orvex_fuzz::Keep(again.NumKeys());
    ini.DeleteKey("CONFIG");
    ini.DeleteValue("shfe", "lowtime");
    return 0;
}
