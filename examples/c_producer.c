/* SPDX-License-Identifier: Apache-2.0 */
#define _DEFAULT_SOURCE /* usleep */
#include <stdio.h>
#include <string.h>
#include <unistd.h>
#include <zav_shm.h>

int main(void) {
    const zav_shm_publisher_options options = {.size = sizeof options, .name = "CAM_LOOP"};
    zav_shm_publisher camera = 0;
    const zav_shm_status opened = zav_shm_publisher_open(&options, &camera);
    if (opened != ZAV_SHM_OK) {
        fprintf(stderr, "producer: %s\n", zav_shm_last_error());
    }
    if (opened < 0) {
        return 1;
    }
    char frame[20000]; /* what an encoder delivers */
    memset(frame, 0, sizeof frame);
    for (int number = 0; number < 300; ++number) {
        const zav_shm_frame_info info = {.size = sizeof info,
                                         .flags = number % 30 == 0 ? ZAV_SHM_KEY_FRAME : 0};
        const zav_shm_status sent = zav_shm_publisher_publish(camera, frame, sizeof frame, &info);
        printf("frame %d: %s\n", number, zav_shm_status_name(sent));
        usleep(33000);
    }
    zav_shm_publisher_close(camera);
    return 0;
}
