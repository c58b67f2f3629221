// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include <tallyra-gst/tallyra-gst.h>

#include <stdio.h>

int main(void) {
    // There is nothing to observe.
    TallyraGstObserver* observer = tallyra_gst_attach(NULL, NULL);
    printf("observer %s\n", observer == NULL ? "none" : "made");
    return 0;
}
