# Stage 4: one table per run, then the summary and the report over all runs.


rule run_table:
    input:
        table=f"{OUT}/runs/{{run}}/ksieve/{{run}}.csv",
        info=f"{OUT}/runs/{{run}}/ksieve_info.json",
        hits=[f"{OUT}/runs/{{run}}/search/{side}.idXML" for side in ("declared", "ksieve")],
        settings=f"{OUT}/work/settings.json",
        psms=[f"{OUT}/runs/{{run}}/fdr/{side}_{kind}.tsv"
              for side in ("declared", "ksieve") for kind in ("all", "accepted")],
        rescoring=[f"{OUT}/runs/{{run}}/fdr/{side}_rescoring.json"
                   for side in ("declared", "ksieve")],
    output:
        table=f"{OUT}/runs/{{run}}/summary.json",
        mzqc=f"{OUT}/runs/{{run}}/{{run}}.mzQC",
    params:
        argv=lambda wildcards, input, output: [
            "run_table.py", f"--run={wildcards.run}", f"--table={input.table}",
            f"--info={input.info}", "--psms", *input.psms, "--rescoring", *input.rescoring,
            f"--input={RUNS[wildcards.run]}",
            f"--parameter-file={OUT}/runs/{wildcards.run}/ksieve.params",
            f"--ksieve-job-log={OUT}/logs/{wildcards.run}/ksieve.log",
            "--hits", *input.hits, f"--settings={input.settings}",
            f"--out={output.table}", f"--mzqc={output.mzqc}",
            *(["--entrapment"] if config["entrapment"] else [])],
    script:
        STAGE


rule report:
    input:
        tables=expand(f"{OUT}/runs/{{run}}/summary.json", run=RUNS),
        mzqc=expand(f"{OUT}/runs/{{run}}/{{run}}.mzQC", run=RUNS),
        settings=f"{OUT}/work/settings.json",
    output:
        report=f"{OUT}/report.html",
        summary=f"{OUT}/summary.tsv",
        details=expand(f"{OUT}/runs/{{run}}/report.html", run=RUNS),
    params:
        argv=lambda wildcards, input: ["report.py", *report_arguments(input.settings)],
    script:
        STAGE
