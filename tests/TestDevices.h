// Small devices for framework tests.
#pragma once

#include <istream>
#include <ostream>

#include "framework/Device.h"

namespace lean {

using namespace Orogen;

// A plain device: its own tag "TEST", no fields of its own.
class PlainDevice : public Device {
public:
    PlainDevice() { SetIdentity("TEST", &CreateDevice<PlainDevice>); }
    const char* GetTypeName() override { return "Plain"; }
    const char* GetDescription() override { return "A device for tests"; }
    int32_t GetCategory() override { return 0; }
    bool Build(const BuildContext&) override { return buildAnswer; }
    bool Save(std::ostream& out) override {
        return SaveState(out, 1);
    }
    bool Load(std::istream& in) override {
        uint8_t version;
        return LoadState(in, version);
    }
    bool buildAnswer = true;
};

// Adds `value` to every sample of input 0 and stores it on output 0; fails
// without an input.
class AddFilter : public Filter {
public:
    AddFilter() {
        SetIdentity("ADDF", &CreateDevice<AddFilter>);
        SetPortCount(this, 1, 1, kHeightField);
        static const ParamSpec table[] = {
            {"Amount", kParamReal, 0.25, 0.0, 1.0, 0, "Added to every sample"},
        };
        DeclareParameters(this, table);
    }
    const char* GetTypeName() override { return "Add"; }
    const char* GetDescription() override { return "Adds a constant"; }
    bool Build(const BuildContext& context) override {
        PacketRef field = TakePrepared(context, 0);
        if (!field) return false;
        float amount = ParamFloat(this, "Amount");
        for (uint64_t i = 0; i < field->PointCount(); ++i) field->samples[i] += amount;
        StoreOutput(context, field, 0);
        return true;
    }
    bool Save(std::ostream& out) override {
        return SaveState(out, 1);
    }
    bool Load(std::istream& in) override {
        uint8_t version;
        return LoadState(in, version);
    }
};

}  // namespace lean
