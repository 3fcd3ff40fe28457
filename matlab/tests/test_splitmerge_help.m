function test_splitmerge_help()
%TEST_SPLITMERGE_HELP Tests of the help files splitmerge.m and smsegment.m.
%   Run with a copy of matlab/*.m on the path and the module not: prints
%   'N passed, N failed' and exits with status 1 when a test failed.

tests = {@help_describes_every_input_and_output, @help_names_every_identifier, ...
         @call_without_module_says_how_to_build, @smsegment_help_gives_every_option, ...
         @smsegment_without_module_says_how_to_build};
run_test_list(tests);
end

function check_mentions(text, names, pattern)
for k = 1:numel(names)
  if isempty(regexp(text, sprintf(pattern, regexptranslate('escape', names{k})), 'once'))
    error('test:failed', 'the help text does not describe %s', names{k});
  end
end
end

function help_describes_every_input_and_output()
text = get_help_text('splitmerge');
names = {'IMAGE', 'MAX_LEVEL', 'LIM_OCT_LEVEL', 'INIT_LEVEL', 'GROUP_MODE', 'MAX_SEED', ...
         'USE_ALL_SEEDS', 'PRED_CHOICE', 'INTERVAL_LENGTH', 'REJECTION', 'SIGMA', ...
         'THRESHOLD_ROW', 'PSEUDO_FACTOR', 'SMALL_SIZE', 'STATISTIC_UPDATE', 'LABELS', ...
         'FRAMES', 'REGIONS', 'Example'};
check_mentions(text, names, '\n\\s*%%?\\s*%s[\\s:]');
end

function help_names_every_identifier()
text = get_help_text('splitmerge');
ids = {'nargin', 'nargout', 'imageClass', 'imageDims', 'notScalar', 'badParameter', ...
       'outOfMemory', 'interrupted', 'runFailed', 'internal', 'notBuilt', 'buildFailed', ...
       'frameBudget'};
check_mentions(text, strcat('splitmerge:', ids), '%s');
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

% Every option with its default, and the example.
function smsegment_help_gives_every_option()
text = get_help_text('smsegment');
options = {'Predicate', 'IntervalLength', 'Rejection', 'Sigma', 'ThresholdRow', ...
           'PseudoFactor', 'SmallSize', 'StatisticUpdate', 'Grouping', 'MaxSeed', ...
           'UseAllSeeds', 'InitLevel', 'MaxLevel', 'LimOctLevel', 'Fit', 'Rescale', ...
           'StartLabel', 'MemoryLimit', 'Frames', 'Regions', 'Verbose', 'Volume'};
for k = 1:numel(options)
  entry = regexp(text, ['\n\s*''' options{k} '''\s(.*?)(?=\n\s*''[A-Z]|\n\s*\n)'], ...
                 'tokens', 'once');
  if isempty(entry) || isempty(strfind(entry{1}, 'Default'))
    error('test:failed', 'the help text gives no default for %s', options{k});
  end
end
ids = {'smsegment:badOption', 'smsegment:imageClass', 'smsegment:imageRange', ...
       'smsegment:imageSize', 'smsegment:outOfRange', 'splitmerge:interrupted', ...
       'splitmerge:outOfMemory', 'Example'};
check_mentions(text, ids, '%s');
end

function smsegment_without_module_says_how_to_build()
try
  smsegment(uint8(zeros(8)));
catch err
  if ~strcmp(err.identifier, 'splitmerge:notBuilt')
    error('test:failed', 'got %s: %s', err.identifier, err.message);
  end
  return;
end
error('test:failed', 'smsegment ran without the module');
end
