"""Tables in Markdown."""
import statistics


def print_table(head, rows):
    lines = [[str(cell) for cell in row] for row in [head, *rows]]
    widths = [max(map(len, column)) for column in zip(*lines)]
    lines.insert(1, ["-" * width for width in widths])
    for line in lines:
        print("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |")
    print(flush=True)


def median(values, form=".2f"):
    return format(statistics.median(values), form)


def spread(values, form=".2f"):
    """Median (smallest..largest)."""
    return f"{median(values, form)} ({min(values):{form}}..{max(values):{form}})"
