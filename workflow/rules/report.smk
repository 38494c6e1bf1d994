# Stage 4: one table per run, then the summary and the report over all runs.


rule run_table:
    input:
        table=f"{OUT}/runs/{{run}}/ksieve/{{run}}.csv",
        info=f"{OUT}/runs/{{run}}/ksieve_info.json",
        psms=[f"{OUT}/runs/{{run}}/fdr/{side}_{kind}.tsv"
              for side in ("declared", "ksieve") for kind in ("all", "accepted")],
    output:
        f"{OUT}/runs/{{run}}/summary.json",
    run:
        python_script("run_table.py", "--run", wildcards.run, "--table", input.table,
                      "--info", input.info, "--psms", *input.psms, "--out", output[0])


rule report:
    input:
        tables=expand(f"{OUT}/runs/{{run}}/summary.json", run=RUNS),
        settings=f"{OUT}/work/settings.json",
    output:
        report=f"{OUT}/report.html",
        summary=f"{OUT}/summary.tsv",
    run:
        python_script("report.py", "--out", OUT, "--settings", input.settings, "--runs", *RUNS)
