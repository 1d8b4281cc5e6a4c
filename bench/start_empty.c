/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * A program that ends. */
int main(void) {
    return 0;
}
