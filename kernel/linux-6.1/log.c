/* The kernel log, and the end of the road. */
#define KERNEL_GLUE
#include <linux/bug.h>
#include <linux/kernel.h>
#include <linux/printk.h>
#include <linux/string.h>

#include <kernel/log.h>

enum {
    longestMessage = 480,
    longestConversion = 16, /* '%', flags, width, precision, length, letter */
};

/* One conversion other than "%%", with its argument. Pointers and missing texts are written as
 * 2.6.30 writes them; the kernel itself would scramble the former. */
static int formatOne(char *to, int size, const char *conversion, int length, va_list *arguments)
{
    const void *pointer;
    const char *text;

    switch (conversion[length - 1]) {
    case 'p':
        pointer = va_arg(*arguments, const void *);
        if (pointer == NULL)
            return scnprintf(to, size, "(null)");
        return scnprintf(to, size, "%0*lx", (int)(2 * sizeof(pointer)), (unsigned long)pointer);
    case 's':
        text = va_arg(*arguments, const char *);
        return scnprintf(to, size, conversion, text != NULL ? text : "<NULL>");
    default:
        if (length > 2 && conversion[length - 2] == 'l' && conversion[length - 3] == 'l')
            return scnprintf(to, size, conversion, va_arg(*arguments, unsigned long long));
        if (conversion[length - 2] == 'l')
            return scnprintf(to, size, conversion, va_arg(*arguments, unsigned long));
        return scnprintf(to, size, conversion, va_arg(*arguments, unsigned int));
    }
}

static int formatAll(char *to, int size, const char *format, va_list *arguments)
{
    char conversion[longestConversion];
    int length;
    int written = 0;

    for (; *format != 0 && written < size - 1; format += length) {
        length = 1;
        if (format[0] == '%' && format[1] != '%') {
            length += strcspn(format + 1, "diuxXocsp") + 1;
            strscpy(conversion, format, min_t(int, length + 1, longestConversion));
            written += formatOne(to + written, size - written, conversion, length, arguments);
        } else {
            to[written++] = *format;
            length += format[0] == '%';
        }
    }
    to[written] = 0;
    return written;
}

/* The level stands in another form here: after a control character, without brackets. */
int zk_printk(const char *format, ...)
{
    char message[longestMessage];
    va_list arguments;
    int start = 0;

    if (format[0] == '<' && format[1] >= '0' && format[1] <= '7' && format[2] == '>') {
        message[start++] = KERN_SOH_ASCII;
        message[start++] = format[1];
        format += 3;
    }
    va_start(arguments, format);
    formatAll(message + start, sizeof(message) - start, format, &arguments);
    va_end(arguments);
    return printk("%s", message);
}

void zk_BUG(void)
{
    BUG();
}
