// orogen devices: the catalogue, as a table or as JSON.

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "cli/Commands.h"
#include "cli/ParameterUnits.h"
#include "cli/Tool.h"

namespace orogen {

using basekit::host::DeviceHandle;
using basekit::host::DeviceType;
using json = nlohmann::ordered_json;

namespace {

const char* CategoryName(int32_t category) {
    switch (category) {
        case 1: return "Generator";
        case 2: return "Output";
        case 3: return "Combiner";
        case 4: return "Filter";
        case 5: return "Natural";
        case 6: return "Selector";
        case 7: return "Utility";
        case 9: return "Converter";
        case 17: return "Parameter";
        default: return "Other";
    }
}

// Appends `piece` to a '|'-separated list.
void Join(std::string& text, const std::string& piece) {
    if (!text.empty()) text += '|';
    text += piece;
}

// Packet kind bits as words: "heightfield", "bitmap|heightfield", "any",
// "parameter".
std::string KindName(uint32_t kind) {
    // Ports that carry parameter values have a kind of their own, 3.
    if (kind == 3) return "parameter";
    static const std::pair<uint32_t, const char*> kNames[] = {
        {Orogen::kParameterPacket, "parameter"},
        {Orogen::kHeightField, "heightfield"},
        {Orogen::kBitmap, "bitmap"},
        {Orogen::kCoordinateData, "coordinates"}};
    std::string text;
    uint32_t named = 0;
    for (const auto& [bit, name] : kNames) {
        named |= bit;
        if (kind & bit) Join(text, name);
    }
    if (kind & ~named) Join(text, std::to_string(kind & ~named));
    return text.empty() ? "any" : text;
}

const char* RoleName(uint32_t role) {
    switch (role) {
        case Orogen::kRoleOrdinary: return "ordinary";
        case Orogen::kRoleOptional: return "optional";
        case Orogen::kRoleSpecial: return "special";
        default: return "other";
    }
}

const char* ParamKindName(uint32_t kind) {
    switch (kind) {
        case Orogen::kParamInteger: return "integer";
        case Orogen::kParamReal: return "real";
        case Orogen::kParamBoolean: return "boolean";
        case Orogen::kParamAction: return "action";
        case Orogen::kParamChoice: return "choice";
        case Orogen::kParamCustom: return "custom";
        default: return "other";
    }
}

// A colour as network files take it: "#RRGGBB".
std::string ColourText(int32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "#%06X", static_cast<unsigned>(value) & 0xFFFFFFu);
    return text;
}

json Number(const Orogen::ParamRecord& record, Orogen::ParamBound bound) {
    return record.IsFloat() ? json(bound.f) : json(bound.i);
}

json Ports(const std::vector<Orogen::Port*>& ports) {
    json list = json::array();
    for (const Orogen::Port* port : ports)
        list.push_back({{"name", port->name}, {"kind", KindName(port->kind)}, {"role", RoleName(port->role)}});
    return list;
}

// Which host globals the device depends on with its default settings.
json Globals(Orogen::Device& device) {
    json list = json::array();
    if (device.OptionQuery3(Orogen::kGlobalLightDirection)) list.push_back("light direction");
    if (device.OptionQuery3(Orogen::kGlobalWaterLevel)) list.push_back("water level");
    return list;
}

// The device's answers to the host's queries. Query 2 is an action on some
// devices (randomize) and query 3 the global dependency: neither is asked here.
json Answers(Orogen::Device& device) {
    char colour[16];
    std::snprintf(colour, sizeof colour, "0x%06X", static_cast<unsigned>(device.GetColor()));
    const json options = {{"1", device.OptionQuery1()},   {"4", device.OptionQuery4()},
                          {"5", device.OptionQuery5()},   {"6", device.OptionQuery6()},
                          {"7", device.OptionQuery7()},   {"8", device.OptionQuery8()},
                          {"9", device.OptionQuery9()},   {"10", device.OptionQuery10()},
                          {"11", device.OptionQuery11()}, {"12", device.OptionQuery12()}};
    return {{"color", colour},
            {"displayMode", device.GetDisplayMode()},
            {"nodeWidth", device.GetNodeWidth()},
            {"nodeHeight", device.GetNodeHeight()},
            {"optionQueries", options},
            {"globals", Globals(device)}};
}

json Describe(const DeviceType& type) {
    DeviceHandle device(type);
    json item;
    item["index"] = type.catalogueIndex >= 0 ? json(type.catalogueIndex) : json(nullptr);
    item["tag"] = type.tag;
    item["typeName"] = type.typeName;
    item["category"] = type.descriptor.category;
    item["categoryName"] = CategoryName(type.descriptor.category);
    item["dataTypes"] = type.descriptor.dataTypes;
    item["flag"] = type.descriptor.flag;
    const char* description = device->GetDescription();
    item["description"] = description ? description : "";
    item["inputs"] = Ports(device->inputs);
    item["outputs"] = Ports({device->outputs.begin(), device->outputs.end()});
    json parameters = json::array();
    for (const Orogen::ParamRecord& record : device->params.records) {
        Orogen::ParamBound value;
        value.i = record.value.i;
        // An action's cell holds its callback, not a value.
        json current = record.kind == Orogen::kParamAction ? json(nullptr)
                       : Orogen::IsColourParameter(record) ? json(ColourText(value.i))
                                                           : Number(record, value);
        json labels = json::array();
        for (const Orogen::ParamLabel& label : record.labels) labels.push_back(label.data());
        json parameter = {
            {"name", record.name},
            {"kind", Orogen::IsColourParameter(record) ? "colour" : ParamKindName(record.kind)},
            {"value", current},
            {"minimum", Number(record, record.minimum)},
            {"maximum", Number(record, record.maximum)},
            {"options", record.options},
            {"flags", record.flags},
            {"labels", labels},
            {"description", record.description ? json(record.description) : json(nullptr)}};
        // Host types and parameters the table does not know carry no unit.
        const ParameterUnit* unit = FindParameterUnit(type.typeName, record.name);
        parameter["unit"] = unit ? json(unit->unit) : json(nullptr);
        parameter["meaning"] = ParameterMeaning(record.description, unit);
        // How a value x on a parameter link lands on the parameter.
        parameter["link"] = record.flags & Orogen::kParamAbsolutePacket ? "absolute"
                            : record.options & Orogen::kParamExponential ? "exponential"
                                                                         : "linear";
        json rules = json::array();
        for (const Orogen::EnablingRule& rule : device->enablingRules)
            if (std::string(rule.parameter) == record.name)
                rules.push_back({{"parameter", rule.controller}, {"value", rule.value}});
        if (!rules.empty()) parameter["enabledWhen"] = rules;
        parameters.push_back(std::move(parameter));
    }
    item["parameters"] = parameters;
    // Listed only where a type has any, as "actions" in network files name them.
    json actions = json::array();
    for (const Orogen::DeviceAction& action : device->actions) actions.push_back(action.label);
    if (!actions.empty()) item["actions"] = actions;
    item["answers"] = Answers(*device.get());
    return item;
}

std::string Cell(const json& value) {
    if (value.is_number_float()) {
        char text[32];
        std::snprintf(text, sizeof text, "%g", value.get<double>());
        return text;
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// A rule's value as the controlling parameter shows it: a label or a switch.
std::string ValueText(const json& parameters, const json& rule) {
    for (const json& p : parameters) {
        if (p["name"] != rule["parameter"]) continue;
        const int64_t value = rule["value"].get<int64_t>();
        if (p["kind"] == "boolean") return value ? "true" : "false";
        const int64_t at = value - (p["minimum"].is_number_integer() ? p["minimum"].get<int64_t>() : 0);
        if (p["kind"] == "choice" && at >= 0 && static_cast<size_t>(at) < p["labels"].size())
            return "\"" + p["labels"][static_cast<size_t>(at)].get<std::string>() + "\"";
    }
    return rule["value"].dump();
}

void PrintTable(const json& catalogue) {
    std::printf("%5s  %-4s  %-16s  %-10s  %2s  %3s  %s\n", "index", "tag", "type", "category", "in",
                "out", "description");
    std::printf("         - %-20s %-8s %-10s %-28s %-16s %s\n", "parameter", "kind", "default", "range",
                "unit", "meaning");
    for (const json& d : catalogue) {
        std::string index = d["index"].is_null() ? "host" : d["index"].dump();
        std::printf("%5s  %-4s  %-16s  %-10s  %2zu  %3zu  %s\n", index.c_str(),
                    d["tag"].get<std::string>().c_str(), d["typeName"].get<std::string>().c_str(),
                    d["categoryName"].get<std::string>().c_str(), d["inputs"].size(),
                    d["outputs"].size(), d["description"].get<std::string>().c_str());
        for (const json& p : d["parameters"]) {
            std::string range = Cell(p["minimum"]) + ".." + Cell(p["maximum"]);
            std::string value = Cell(p["value"]);
            if (p["kind"] == "boolean") {
                value = p["value"] == 0 ? "false" : "true";
                range = "true|false";
            } else if (p["kind"] == "colour") {
                range = "#RRGGBB";
            } else if (p["kind"] == "action") {
                value = "-";
                range = "(action)";
            } else if (p["kind"] == "choice" && !p["labels"].empty()) {
                std::string labels;
                for (const json& label : p["labels"]) Join(labels, label.get<std::string>());
                range = labels;
                int64_t at = p["value"].get<int64_t>() - p["minimum"].get<int64_t>();
                if (at >= 0 && static_cast<size_t>(at) < p["labels"].size())
                    value = p["labels"][static_cast<size_t>(at)].get<std::string>();
            }
            std::string description = p["meaning"].get<std::string>();
            if (p.contains("enabledWhen"))
                for (const json& rule : p["enabledWhen"])
                    description += " (active while \"" + rule["parameter"].get<std::string>() +
                                   "\" is " + ValueText(d["parameters"], rule) + ")";
            const std::string unit = p["unit"].is_null() ? "-" : p["unit"].get<std::string>();
            std::printf("         - %-20s %-8s %-10s %-28s %-16s %s\n", p["name"].get<std::string>().c_str(),
                        p["kind"].get<std::string>().c_str(), value.c_str(), range.c_str(), unit.c_str(),
                        description.c_str());
        }
        if (d.contains("actions"))
            for (const json& action : d["actions"])
                std::printf("         action %s\n", action.dump().c_str());
    }
}

}  // namespace

int RunDevices(basekit::host::Host& host, bool asJson) {
    json catalogue = json::array();
    for (const DeviceType& type : host.Types()) catalogue.push_back(Describe(type));
    if (asJson)
        std::printf("%s\n", catalogue.dump(2).c_str());
    else
        PrintTable(catalogue);
    return kExitOk;
}

}  // namespace orogen
