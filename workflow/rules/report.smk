# Stage 4: one table per run, then the summary and the report over all runs.


rule run_table:
    input:
        table=f"{OUT}/runs/{{run}}/ksieve/{{run}}.csv",
        info=f"{OUT}/runs/{{run}}/ksieve_info.json",
        psms=[f"{OUT}/runs/{{run}}/fdr/{side}_{kind}.tsv"
              for side in ("declared", "ksieve") for kind in ("all", "accepted")],
        rescoring=[f"{OUT}/runs/{{run}}/fdr/{side}_rescoring.json"
                   for side in ("declared", "ksieve")],
    output:
        f"{OUT}/runs/{{run}}/summary.json",
    params:
        argv=lambda wildcards, input, output: [
            "run_table.py", f"--run={wildcards.run}", f"--table={input.table}",
            f"--info={input.info}", "--psms", *input.psms, "--rescoring", *input.rescoring,
            f"--out={output[0]}",
            *(["--entrapment"] if config["entrapment"] else [])],
    script:
        STAGE


rule report:
    input:
        tables=expand(f"{OUT}/runs/{{run}}/summary.json", run=RUNS),
        settings=f"{OUT}/work/settings.json",
    output:
        report=f"{OUT}/report.html",
        summary=f"{OUT}/summary.tsv",
    params:
        argv=lambda wildcards, input: ["report.py", *report_arguments(input.settings)],
    script:
        STAGE
