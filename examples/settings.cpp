// Settings as VARIANTs: a value knows its type, texts become numbers and back, and who clears what.

#include <stdio.h>

#include <map>
#include <string>

#include <Windows/bstr.h>
#include <Windows/variant.h>

namespace {

// Settings by name. Each has the type of its default; what is set later is converted to that.
class Settings {
public:
    ~Settings() {
        for (auto& entry : m_values)
            VariantClear(&entry.second); // a variant has no destructor
    }

    // The settings own the default from now on.
    void Define(const char* name, _variant_t value) { m_values[name] = value; }

    // Sets what came as a text, from a file or a command line. False for an unknown name.
    bool Set(const char* name, const char* text) {
        const auto entry = m_values.find(name);
        if (entry == m_values.end())
            return false;
        const VARTYPE type = V_VT(&entry->second);
        VariantClear(&entry->second);
        entry->second = _variant_t(text);
        return VariantChangeType(&entry->second, type) == 0;
    }

    const VARIANT& Get(const char* name) const { return m_values.at(name); }

    // The value as a text, without changing it: a copy is converted. Reals are written by hand, as a
    // converted real keeps its type and would not be freed.
    std::string TextOf(const char* name) {
        VARIANT& value = m_values.at(name);
        if (V_VT(&value) == VT_R8)
            return std::to_string(value.dblVal);
        VARIANT copy;
        VariantInit(&copy);
        VariantCopy(&copy, &value);
        VariantChangeType(&copy, VT_BSTR);
        const std::string text = copy.bstrVal ? copy.bstrVal : "";
        VariantClear(&copy);
        return text;
    }

    void Print() {
        for (const auto& entry : m_values)
            printf("  %-8s %2d  %s\n", entry.first.c_str(), entry.second.vt,
                   TextOf(entry.first.c_str()).c_str());
    }

private:
    std::map<std::string, VARIANT> m_values;
};

} // namespace

int main() {
    Settings settings;
    settings.Define("name", "pump");
    settings.Define("port", 4711);
    settings.Define("gain", 0.5);
    settings.Define("verbose", false);
    puts("defaults:");
    settings.Print();

    settings.Set("name", "second pump");
    settings.Set("port", "4712 or so"); // read as far as it is a number
    settings.Set("gain", "1.25");
    settings.Set("verbose", "yes"); // everything but "false" and "0" is true
    puts("changed:");
    settings.Print();

    if (!settings.Set("colour", "red"))
        puts("there is no setting colour");
    settings.Set("port", "none"); // not an error: it counts as 0
    printf("port %d, %s\n", settings.Get("port").lVal,
           settings.Get("verbose").boolVal == VARIANT_TRUE ? "verbose" : "quiet");
}
