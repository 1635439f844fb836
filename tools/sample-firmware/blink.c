/* Sample firmware for the demo and the end-to-end tests: a control module's "blink" program. It is
 * never run; it exists so that the flasher has a real linked program to carry, laid out the way a
 * small controller's flash holds one (a header, code, constants, then the initial values of .data). */
#include <stdint.h>

/* A made-up GPIO block; only the addresses matter, nothing dereferences them on the build host. */
#define GPIO_BASE 0x40020000u
#define GPIO_DIR (*(volatile uint32_t *)(GPIO_BASE + 0x00u))
#define GPIO_OUT (*(volatile uint32_t *)(GPIO_BASE + 0x14u))
#define LED_STATUS (1u << 5)
#define LED_CAN (1u << 6)

#define FIRMWARE_MAGIC 0x424C4E4Bu /* "BLNK" */
#define FIRMWARE_VERSION 0x0102u

/* Linker-script symbols: where .data lives in RAM and where its initial values sit in flash. */
extern uint32_t __data_load[], __data_start[], __data_end[], __bss_start[], __bss_end[];

void reset_handler(void);

struct firmware_header {
    uint32_t magic;
    uint16_t version;
    uint16_t header_size;
    void (*entry)(void);
    const char *name;
};

/* First in flash (KEEP in the linker script), so a bootloader can find the entry point. */
__attribute__((section(".header"), used)) const struct firmware_header firmware_header = {
    FIRMWARE_MAGIC, FIRMWARE_VERSION, (uint16_t)sizeof(struct firmware_header), reset_handler,
    "varnoch sample firmware: blink",
};

/* "SOS" in Morse code, as on and off times in milliseconds. */
static const uint16_t sos_pattern[] = {
    150, 150, 150, 150, 150, 450,                    /* S */
    450, 150, 450, 150, 450, 450,                    /* O */
    150, 150, 150, 150, 150, 1050,                   /* S */
};

/* One "breathing" cycle of the CAN LED: duty cycle in 1/1024, a rough sine. */
static const uint16_t breath_duty[] = {
    0,   2,   10,  22,  39,  61,  87,  117, 151, 189, 230, 274, 321, 370, 420, 472,
    512, 564, 614, 663, 710, 754, 795, 833, 867, 897, 923, 945, 962, 974, 982, 1023,
    1023, 982, 974, 962, 945, 923, 897, 867, 833, 795, 754, 710, 663, 614, 564, 512,
    472, 420, 370, 321, 274, 230, 189, 151, 117, 87,  61,  39,  22,  10,  2,   0,
};

/* Busy-loop calibration, kept in .data so that a bootloader test sees initialised RAM values. */
volatile uint32_t loops_per_ms = 4000u;
volatile uint32_t blink_count;

static void delay_ms(uint32_t ms) {
    for (uint32_t i = 0; i < ms * loops_per_ms; ++i) {
        __asm__ volatile("" ::: "memory");
    }
}

/* One PWM period of about 1 ms with the given duty cycle. */
static void pwm_period(uint32_t mask, uint32_t duty) {
    const uint32_t on = (duty * loops_per_ms) >> 10;
    GPIO_OUT |= mask;
    for (uint32_t i = 0; i < on; ++i) {
        __asm__ volatile("" ::: "memory");
    }
    GPIO_OUT &= ~mask;
    for (uint32_t i = on; i < loops_per_ms; ++i) {
        __asm__ volatile("" ::: "memory");
    }
}

int main(void) {
    GPIO_DIR |= LED_STATUS | LED_CAN;
    for (;;) {
        for (uint32_t i = 0; i < sizeof sos_pattern / sizeof sos_pattern[0]; ++i) {
            GPIO_OUT ^= LED_STATUS;
            delay_ms(sos_pattern[i]);
        }
        for (uint32_t i = 0; i < sizeof breath_duty / sizeof breath_duty[0]; ++i) {
            for (uint32_t ms = 0; ms < 16u; ++ms) {
                pwm_period(LED_CAN, breath_duty[i]);
            }
        }
        ++blink_count;
    }
}

void reset_handler(void) {
    uint32_t *from = __data_load;
    for (uint32_t *to = __data_start; to < __data_end;) {
        *to++ = *from++;
    }
    for (uint32_t *to = __bss_start; to < __bss_end;) {
        *to++ = 0;
    }
    main();
    for (;;) {
    }
}
