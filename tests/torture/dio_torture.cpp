// SPDX-License-Identifier: MIT
#include <vxutils/dio.h>
#include <vxutils/dio_status.h>

#include "support/board.h"
#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

void lines(Run &run) {
    // A line whose directory cannot be looked at is not counted; a tree that cannot be read is logged.
    const auto seen = [&] { return run.failed("scandir") ? "Can't" : nullptr; };
    unsigned int count = 0;
    const int counted = run([&] { return dio_count(&count); });
    run.outcome("dio_count", counted == DIO_OK && count == 6, counted == DIO_OK, seen());
    unsigned int inputs = 0;
    const int countedInputs = run([&] { return dio_roCount(&inputs); });
    run.outcome("dio_roCount", countedInputs == DIO_OK && inputs == 4, countedInputs == DIO_OK, seen());
    unsigned int outputs = 0;
    const int countedOutputs = run([&] { return dio_rwCount(&outputs); });
    run.outcome("dio_rwCount", countedOutputs == DIO_OK && outputs == 2, countedOutputs == DIO_OK, seen());
    unsigned char input = 7;
    const int read = run([&] { return dio_roValue(1, &input); });
    run.outcome("dio_roValue", read == DIO_OK && input == 0, read == DIO_SYSTEM && input == 7, "Can't");
    const int set = run([] { return dio_setValue(1, 1); });
    run.outcome("dio_setValue", set == DIO_OK, set == DIO_SYSTEM, "Can't");
    unsigned char on = 7;
    const int value = run([&] { return dio_rwValue(1, &on); });
    run.outcome("dio_rwValue", value == DIO_OK && (set != DIO_OK || on == 1), value == DIO_SYSTEM && on == 7, "Can't");
    const int reset = run([] { return dio_setValue(1, 0); });
    run.outcome("dio_setValue", reset == DIO_OK, reset == DIO_SYSTEM, "Can't");
}

void frequency(Run &run) {
    unsigned char active = 7;
    const int started = run([] { return dio_setFrequencyActive(1, 1); });
    run.outcome("dio_setFrequencyActive", started == DIO_OK, started == DIO_SYSTEM, "Can't");
    const int asked = run([&] { return dio_frequencyActive(1, &active); });
    run.outcome("dio_frequencyActive", asked == DIO_OK && active == (started == DIO_OK ? 1 : 0),
                asked == DIO_SYSTEM || asked == DIO_INACTIVE, "Can't");
    dio_frequency_record record{};
    const int read = run([&] { return dio_frequency(1, &record); });
    if (started == DIO_OK) {
        run.outcome("dio_frequency", read == DIO_OK || read == DIO_INACTIVE, read == DIO_SYSTEM || read == DIO_LEXICAL,
                    "Can't");
    }
    const int stopped = run([] { return dio_setFrequencyActive(1, 0); });
    if (started == DIO_OK) run.outcome("dio_setFrequencyActive", stopped == DIO_OK, stopped == DIO_SYSTEM, "Can't");
    if (stopped != DIO_OK) (void)dio_setFrequencyActive(1, 0);
}

void record(Run &run) {
    dio_status status{};
    const int got = run([&] { return dio_getStatus(&status); });
    run.outcome("dio_getStatus", got == DIO_OK && status.in.count == 4 && status.out.count == 2,
                got == DIO_SYSTEM || got == DIO_OK, got == DIO_OK ? nullptr : "Can't");  // or lines that are not seen
    if (status.out.count == 2) {
        dio_setOutValueInStatus(&status.out, 2, 1);
        const int set = run([&] { return dio_setStatusOut(&status.out); });
        run.outcome("dio_setStatusOut", set == DIO_OK, set == DIO_SYSTEM, "Can't");
        dio_setOutValueInStatus(&status.out, 2, 0);
        (void)dio_setStatusOut(&status.out);
    }
}

void halves(Run &run) {
    dio_status_half in{};
    const int inputs = run([&] { return dio_getStatusIn(&in); });
    run.outcome("dio_getStatusIn", inputs == DIO_OK && in.count == 4, inputs == DIO_SYSTEM || inputs == DIO_OK,
                inputs == DIO_OK ? nullptr : "Can't");
    dio_status_half out{};
    const int outputs = run([&] { return dio_getStatusOut(&out); });
    run.outcome("dio_getStatusOut", outputs == DIO_OK && out.count == 2, outputs == DIO_SYSTEM || outputs == DIO_OK,
                outputs == DIO_OK ? nullptr : "Can't");
}

void onBoard(Run &run) {
    static vxtest::Board board(4, 2);
    lines(run);
    frequency(run);
    record(run);
    halves(run);
    (void)board.happened();  // else the board would wait for a reader one day
}

}  // namespace

int main(int argc, char **argv) { return torture::torment(argc, argv, {{"dio: lines", onBoard}}); }
