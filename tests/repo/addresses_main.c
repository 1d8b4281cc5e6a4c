/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The entry of the programs that refer to all that the public headers declare (addresses.py). That they link, and that
 * the shared library has what they ask of it when they start, is the test. */
int main(void) {
    return 0;
}
