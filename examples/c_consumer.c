/* SPDX-License-Identifier: Apache-2.0 */
#include <stdio.h>
#include <zav_shm.h>

int main(void) {
    const zav_shm_subscriber_options options = {
        .size = sizeof options, .name = "PLAYER", .producer = "CAM_LOOP"};
    zav_shm_subscriber player = 0;
    const zav_shm_status opened = zav_shm_subscriber_open(&options, &player);
    if (opened != ZAV_SHM_OK) {
        fprintf(stderr, "consumer: %s\n", zav_shm_last_error());
    }
    if (opened < 0) {
        return 1;
    }
    static char buffer[1 << 20];
    for (int number = 0; number < 300;) {
        zav_shm_frame frame = {.size = sizeof frame};
        const zav_shm_status got =
            zav_shm_subscriber_receive(player, buffer, sizeof buffer, 1000, &frame);
        if (got == ZAV_SHM_OK) {
            printf("%llu bytes, lost %llu\n", (unsigned long long)frame.payload_bytes,
                   (unsigned long long)(frame.overtaken + frame.left_out + frame.no_memory));
            ++number;
        } else {
            printf("%s\n", zav_shm_status_name(got));
        }
    }
    zav_shm_subscriber_close(player);
    return 0;
}
