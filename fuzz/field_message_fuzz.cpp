// The tag and value encoding of command bodies: the length-prefixed wrapper, the field decoder
// and the field lookups, and a re-encoding of what was decoded.

#include <string>
#include <string_view>

#include "bridge/frames.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input = fuzzing::text_of(data, size);

    zq::FieldList fields;
    const bool whole = zq::decode(input, fields);
    for (std::uint32_t number = 0; number < 8; ++number) {
        (void)zq::string_field(fields, number);
        (void)zq::number_field(fields, number, 7);
    }

    // Fields of the two kinds this side writes come back the same after a round through the
    // builder, whatever varint spelling the input used.
    bool writable = whole;
    zq::FieldMessage again;
    for (const zq::FieldRecord& f : fields) {
        FUZZ_CHECK(f.wire_type == 2 || f.bytes.empty());
        if (f.wire_type == 0)
            again.number(f.number, f.value);
        else if (f.wire_type == 2)
            again.string(f.number, f.bytes);
        else
            writable = false;
    }
    if (writable) {
        zq::FieldList back;
        FUZZ_CHECK(zq::decode(again.bytes(), back));
        FUZZ_CHECK(back.size() == fields.size());
        for (std::size_t i = 0; i < back.size(); ++i) {
            FUZZ_CHECK(back[i].number == fields[i].number && back[i].wire_type == fields[i].wire_type);
            FUZZ_CHECK(back[i].value == fields[i].value && back[i].bytes == fields[i].bytes);
        }
    }

    std::string message;
    const bool unwrapped = zq::unwrap_message(input, message);
    FUZZ_CHECK(unwrapped == (input.size() >= 4));
    if (unwrapped) {
        FUZZ_CHECK(message.size() <= input.size() - 4);
        FUZZ_CHECK(zq::unwrap_message(zq::wrap_message(message), message));
    }
    FUZZ_CHECK(zq::read_request(input).has_value() == unwrapped);
    return 0;
}
