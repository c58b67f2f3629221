/* Copyright 2026 The Tallyra authors
 * SPDX-License-Identifier: Apache-2.0
 */

#include <tallyra-gst/tallyra-gst.h>

#include <stdio.h>

int main(void) {
    /* Nothing to observe: the call returns a null pointer. */
    TallyraGstObserver* observer = tallyra_gst_attach(NULL, NULL);
    printf("observer %s\n", observer == NULL ? "none" : "made");
    return 0;
}
