"""Whether each client does each job, and correctly."""
import runner
import table


def check_jobs(run, clients, jobs):
    """Prints a table and returns the pairs (job, client) that work."""
    working, rows = set(), []
    for job in jobs:
        row = [job]
        for client in clients:
            try:
                run.check(client, job)
                working.add((job, client))
                row.append("ok")
            except runner.Unsupported:
                row.append("unsupported")
            except runner.Failed as failure:
                row.append(f"FAILED: {failure}")
        rows.append(row)
    print(f"Each job once, transfers with a file of {runner.CHECKED_SIZE} bytes that is compared:\n")
    table.print_table(["job", *clients], rows)
    return working
