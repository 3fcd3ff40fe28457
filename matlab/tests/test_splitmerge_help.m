function test_splitmerge_help()
%TEST_SPLITMERGE_HELP Tests of matlab/splitmerge.m, the module's help file.
%   Run with matlab/ on the path and the module not: prints 'N passed,
%   N failed' and exits with status 1 when a test failed.

tests = {@help_describes_every_input_and_output, @call_without_module_says_how_to_build};
run_test_list(tests);
end

function help_describes_every_input_and_output()
text = get_help_text('splitmerge');
names = {'IMAGE', 'MAX_LEVEL', 'LIM_OCT_LEVEL', 'INIT_LEVEL', 'GROUP_MODE', 'MAX_SEED', ...
         'USE_ALL_SEEDS', 'PRED_CHOICE', 'INTERVAL_LENGTH', 'REJECTION', 'SIGMA', ...
         'THRESHOLD_ROW', 'PSEUDO_FACTOR', 'SMALL_SIZE', 'STATISTIC_UPDATE', 'LABELS', ...
         'FRAMES', 'Example'};
for k = 1:numel(names)
  if isempty(regexp(text, ['\n\s*%?\s*' names{k} '[\s:]'], 'once'))
    error('test:failed', 'the help text does not describe %s', names{k});
  end
end
end

function call_without_module_says_how_to_build()
try
  splitmerge(int32(zeros(2)), 1, 1, 0, 0, 1, 0, 1, 10, 0.1, 5, 3, 2, 0, 1);
catch err
  if ~strcmp(err.identifier, 'splitmerge:notBuilt') || isempty(strfind(err.message, 'build_splitmerge'))
    error('test:failed', 'got %s: %s', err.identifier, err.message);
  end
  return;
end
error('test:failed', 'the help file ran without the module');
end
